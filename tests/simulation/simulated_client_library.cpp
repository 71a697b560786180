#include "tests/simulation/simulated_client_library.h"

#include "source/testing/node_tree.h"
#include "tests/simulation/ensemble_model.h"
#include "tests/simulation/simulated_handle.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The client library's header leaves this to the library.
struct _zhandle  // NOLINT(bugprone-reserved-identifier)
{
    std::optional<kx::velmor::simulation::SimulatedHandle> handle;
};

namespace kx::velmor::simulation {

namespace {

using Kind = ClientRequest::Kind;

void Require(bool condition, const char* what)
{
    if (!condition)
    {
        std::fprintf(stderr, "simulated client library: %s\n", what);
        std::abort();
    }
}

/// The servers of "127.0.0.1:1,127.0.0.1:2".
std::vector<std::size_t> ServersOf(const std::string& addresses)
{
    std::vector<std::size_t> servers;
    for (std::size_t begin = 0; begin < addresses.size();)
    {
        const std::size_t end = std::min(addresses.find(',', begin), addresses.size());
        const std::string address = addresses.substr(begin, end - begin);
        for (std::size_t server = 0; server < EnsembleModel::Current().Servers(); ++server)
        {
            if (address == "127.0.0.1:" + std::to_string(EnsembleModel::Port(server)))
            {
                servers.push_back(server);
            }
        }
        begin = end + 1;
    }
    Require(!servers.empty(), "no such server");
    return servers;
}

std::string Text(const char* bytes, int size)
{
    return bytes != nullptr && size > 0 ? std::string(bytes, static_cast<std::size_t>(size)) : std::string();
}

ClientRequest Of(Kind kind, const char* path)
{
    ClientRequest request;
    request.kind = kind;
    request.path = path;
    return request;
}

Step Creation(const char* path, const char* data, int size, int flags)
{
    Require((flags & ~(ZOO_EPHEMERAL | ZOO_SEQUENCE)) == 0, "unknown kind of node");
    return Step{Step::Kind::Create,         path, Text(data, size), -1, (flags & ZOO_EPHEMERAL) != 0,
                (flags & ZOO_SEQUENCE) != 0};
}

Step StepOf(const zoo_op_t& op)
{
    if (op.type == ZOO_CREATE_OP)
    {
        return Creation(op.create_op.path, op.create_op.data, op.create_op.datalen, op.create_op.flags);
    }
    if (op.type == ZOO_DELETE_OP)
    {
        return Step{Step::Kind::Delete, op.delete_op.path, {}, op.delete_op.version};
    }
    if (op.type == ZOO_SETDATA_OP)
    {
        return Step{Step::Kind::Set, op.set_op.path, Text(op.set_op.data, op.set_op.datalen), op.set_op.version};
    }
    Require(op.type == ZOO_CHECK_OP, "unknown operation");
    return Step{Step::Kind::Check, op.check_op.path, {}, op.check_op.version};
}

bool Valid(const Step& step)
{
    return IsNodePath(step.path, step.sequential);
}

/// Where the results of a transaction go, as the real library arranges it when it is asked.
void PrepareResults(int count, const zoo_op_t* ops, zoo_op_result_t* results)
{
    for (int i = 0; i < count; ++i)
    {
        if (ops[i].type == ZOO_CREATE_OP)
        {
            results[i].value = ops[i].create_op.buf;
            results[i].valuelen = ops[i].create_op.buflen;
        }
        else if (ops[i].type == ZOO_SETDATA_OP)
        {
            results[i].stat = ops[i].set_op.stat;
        }
    }
}

/// As the real library does when it has the answer, or knows that there is none: then there are no outcomes.
void WriteResults(const Answer& answer, int count, zoo_op_result_t* results)
{
    for (int i = 0; i < count; ++i)
    {
        const auto index = static_cast<std::size_t>(i);
        const bool told = index < answer.outcomes.size();
        zoo_op_result_t& result = results[i];
        result.err = told ? answer.outcomes[index].rc : answer.rc;
        if (answer.rc != ZOK)
        {
            result.value = nullptr;
            continue;
        }
        const StepOutcome& outcome = answer.outcomes[index];
        if (!outcome.createdPath.empty() && result.value != nullptr && result.valuelen > 0)
        {
            const auto room = static_cast<std::size_t>(result.valuelen);
            const std::size_t bytes = std::min(outcome.createdPath.size() + 1, room);
            std::memcpy(result.value, outcome.createdPath.c_str(), bytes);
            result.value[bytes - 1] = '\0';
        }
        if (result.stat != nullptr)
        {
            *result.stat = outcome.stat;
        }
    }
}

SimulatedHandle::Completion Stating(stat_completion_t completion, const void* data)
{
    return [completion, data](const Answer& answer) {
        completion(answer.rc, answer.rc == ZOK ? &answer.stat : nullptr, data);
    };
}

}  // namespace

void LinkSimulatedClientLibrary() {}

}  // namespace kx::velmor::simulation

namespace sim = kx::velmor::simulation;

extern "C" {

zhandle_t* zookeeper_init2(const char* host, watcher_fn fn, int recv_timeout, const clientid_t* clientid, void* context,
                           int /*flags*/, log_callback_fn /*log_callback*/)
{
    auto* const zh = new _zhandle;
    zh->handle.emplace(*sim::VirtualMachine::Current(), sim::EnsembleModel::Current().Network(), sim::ServersOf(host),
                       std::chrono::milliseconds(recv_timeout), clientid, zh, sim::ClientWatches::Watcher(fn, context));
    return zh;
}

int zookeeper_close(zhandle_t* zh)
{
    zh->handle->Close();
    delete zh;
    return ZOK;
}

int zoo_acreate(zhandle_t* zh, const char* path, const char* value, int valuelen, const ACL_vector* /*acl*/, int mode,
                string_completion_t completion, const void* data)
{
    sim::ClientRequest request = sim::Of(sim::Kind::Write, path);
    request.steps.push_back(sim::Creation(path, value, valuelen, mode));
    if (!sim::Valid(request.steps.front()))
    {
        return ZBADARGUMENTS;
    }
    return zh->handle->Submit(std::move(request), [completion, data](const sim::Answer& answer) {
        completion(answer.rc, answer.rc == ZOK ? answer.outcomes.front().createdPath.c_str() : nullptr, data);
    });
}

int zoo_adelete(zhandle_t* zh, const char* path, int version, void_completion_t completion, const void* data)
{
    sim::ClientRequest request = sim::Of(sim::Kind::Write, path);
    request.steps.push_back(sim::Step{sim::Step::Kind::Delete, path, {}, version});
    if (!sim::Valid(request.steps.front()))
    {
        return ZBADARGUMENTS;
    }
    return zh->handle->Submit(std::move(request),
                              [completion, data](const sim::Answer& answer) { completion(answer.rc, data); });
}

int zoo_amulti(zhandle_t* zh, int count, const zoo_op_t* ops, zoo_op_result_t* results, void_completion_t completion,
               const void* data)
{
    sim::ClientRequest request;
    request.kind = sim::Kind::Write;
    request.transaction = true;
    for (int i = 0; i < count; ++i)
    {
        request.steps.push_back(sim::StepOf(ops[i]));
        if (!sim::Valid(request.steps.back()))
        {
            return ZBADARGUMENTS;
        }
    }
    sim::PrepareResults(count, ops, results);
    const int rc = zh->handle->Submit(std::move(request), [=](const sim::Answer& answer) {
        sim::WriteResults(answer, count, results);
        completion(answer.rc, data);
    });
    return rc == ZINVALIDSTATE ? static_cast<int>(ZMARSHALLINGERROR) : rc;
}

int zoo_aexists(zhandle_t* zh, const char* path, int watch, stat_completion_t completion, const void* data)
{
    sim::Require(watch == 0, "no watches for the handle's own watcher");
    return zh->handle->Submit(sim::Of(sim::Kind::Exists, path), sim::Stating(completion, data));
}

int zoo_aget_acl(zhandle_t* zh, const char* path, acl_completion_t completion, const void* data)
{
    // Nodes keep no access lists here: only whether there is one counts.
    return zh->handle->Submit(sim::Of(sim::Kind::Exists, path), [completion, data](const sim::Answer& answer) {
        completion(answer.rc, nullptr, nullptr, data);
    });
}

int zoo_awexists(zhandle_t* zh, const char* path, watcher_fn watcher, void* watcherCtx, stat_completion_t completion,
                 const void* data)
{
    sim::ClientRequest request = sim::Of(sim::Kind::Exists, path);
    request.watch = true;
    return zh->handle->Submit(std::move(request), sim::Stating(completion, data),
                              sim::ClientWatches::Watcher(watcher, watcherCtx));
}

int zoo_aget(zhandle_t* zh, const char* path, int watch, data_completion_t completion, const void* data)
{
    sim::Require(watch == 0, "no watches on data");
    return zh->handle->Submit(sim::Of(sim::Kind::GetData, path), [completion, data](const sim::Answer& answer) {
        const bool found = answer.rc == ZOK;
        completion(answer.rc, found ? answer.data.data() : nullptr, found ? static_cast<int>(answer.data.size()) : -1,
                   found ? &answer.stat : nullptr, data);
    });
}

int zoo_aget_children(zhandle_t* zh, const char* path, int watch, strings_completion_t completion, const void* data)
{
    sim::Require(watch == 0, "no watches on children");
    return zh->handle->Submit(sim::Of(sim::Kind::GetChildren, path), [completion, data](const sim::Answer& answer) {
        std::vector<char*> names;
        for (const std::string& child : answer.children)
        {
            names.push_back(const_cast<char*>(child.c_str()));
        }
        const String_vector children{static_cast<std::int32_t>(names.size()), names.data()};
        completion(answer.rc, answer.rc == ZOK ? &children : nullptr, data);
    });
}

int zoo_async(zhandle_t* zh, const char* path, string_completion_t completion, const void* data)
{
    return zh->handle->Submit(sim::Of(sim::Kind::Sync, path), [completion, data](const sim::Answer& answer) {
        completion(answer.rc, answer.rc == ZOK ? answer.path.c_str() : nullptr, data);
    });
}

int zoo_remove_watches(zhandle_t* zh, const char* path, ZooWatcherType wtype, watcher_fn watcher, void* watcherCtx,
                       int local)
{
    sim::Require(wtype == ZWATCHTYPE_DATA && local != 0, "watches are removed locally");
    return zh->handle->Watches().Remove(path, {watcher, watcherCtx}) ? ZOK : static_cast<int>(ZNOWATCHER);
}

int zoo_add_auth(zhandle_t* zh, const char* /*scheme*/, const char* /*cert*/, int /*certLen*/,
                 void_completion_t /*completion*/, const void* /*data*/)
{
    return zh->handle->Unrecoverable() ? static_cast<int>(ZINVALIDSTATE) : ZOK;
}

const clientid_t* zoo_client_id(zhandle_t* zh)
{
    return &zh->handle->Identity();
}

int zoo_recv_timeout(zhandle_t* zh)
{
    return zh->handle->Timeout();
}

int zoo_state(zhandle_t* zh)
{
    return zh->handle->State();
}

int is_unrecoverable(zhandle_t* zh)
{
    return zh->handle->Unrecoverable() ? static_cast<int>(ZINVALIDSTATE) : ZOK;
}

sockaddr* zookeeper_get_connected_host(zhandle_t* zh, sockaddr* addr, socklen_t* addr_len)
{
    const auto server = zh->handle->ConnectedServer();
    if (!server)
    {
        return nullptr;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(sim::EnsembleModel::Port(*server)));
    std::memcpy(addr, &address, sizeof(address));
    *addr_len = sizeof(address);
    return addr;
}

int zoo_set_servers_resolution_delay(zhandle_t* /*zh*/, int /*delay_ms*/)
{
    return ZOK;
}

void zoo_set_debug_level(ZooLogLevel /*logLevel*/) {}
}
