#include "tests/support/scripted_client_library.h"

#include <kx/velmor/connection.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

namespace {

using kx::velmor::testing_support::Reply;
using kx::velmor::testing_support::Sent;

/// A request that was sent and not answered yet.
struct Request
{
    Sent sent;
    std::string path;
    string_completion_t onString = nullptr;
    strings_completion_t onStrings = nullptr;
    stat_completion_t onStat = nullptr;
    void_completion_t onVoid = nullptr;
    data_completion_t onData = nullptr;
    const void* context = nullptr;
    /// Of a transaction: where its results go.
    std::vector<zoo_op_result_t*> results{};
};

}  // namespace

/// The client library's header leaves this to the library. Kept until the end of the script, so that a use after the
/// close is seen.
struct _zhandle  // NOLINT(bugprone-reserved-identifier)
{
    int number = 0;
    std::string addresses;
    watcher_fn watcher = nullptr;
    void* context = nullptr;
    log_callback_fn log = nullptr;
    int sessionTimeout = 0;
    std::size_t heartbeats = 0;
    clientid_t identity{};
    int resolutionDelay = 0;

    bool broken = false;
    bool connected = false;
    /// Inside `zookeeper_close`: nothing may be asked of it any more.
    bool closing = false;
    /// Set as the first thing inside `zookeeper_close`.
    std::atomic<bool> closeBegun{false};
    /// Nothing happens to it any more.
    bool deaf = false;
    bool closed = false;
    std::function<void()> whenClosed{};
    std::set<std::string> armed{};
    std::deque<Request> held{};
    /// Calls that have not returned.
    int inside = 0;
    /// Reports, events and answers that have not arrived.
    int queued = 0;
};

namespace kx::velmor::testing_support {

namespace {

constexpr std::chrono::seconds kPatience{20};

std::atomic<ScriptedClientLibrary::Core*> g_library{nullptr};
std::atomic<ScriptedNameService::Core*> g_names{nullptr};
std::atomic<int> g_logLevel{0};

const char* Name(Sent sent)
{
    switch (sent)
    {
        case Sent::Create:
            return "create";
        case Sent::GetChildren:
            return "children";
        case Sent::GetData:
            return "data";
        case Sent::Exists:
            return "exists";
        case Sent::WatchExists:
            return "watch";
        case Sent::Delete:
            return "delete";
        case Sent::Sync:
            return "sync";
        case Sent::Transact:
            return "transact";
    }
    return "?";
}

std::string Describe(const zoo_op_t& step)
{
    const auto version = [](int wanted) { return wanted == -1 ? std::string() : " v" + std::to_string(wanted); };
    if (step.type == ZOO_DELETE_OP)
    {
        return std::string("delete ") + step.delete_op.path + version(step.delete_op.version);
    }
    if (step.type == ZOO_CHECK_OP)
    {
        return std::string("check ") + step.check_op.path + version(step.check_op.version);
    }
    if (step.type == ZOO_SETDATA_OP)
    {
        return std::string("set ") + step.set_op.path + "=" +
               std::string(step.set_op.data, static_cast<std::size_t>(step.set_op.datalen)) +
               version(step.set_op.version);
    }
    EXPECT_EQ(step.type, ZOO_CREATE_OP);
    const auto& creation = step.create_op;
    std::string text = std::string("create ") + creation.path + "=" +
                       std::string(creation.data, static_cast<std::size_t>(creation.datalen)) +
                       ((creation.flags & ZOO_EPHEMERAL) != 0 ? " ephemeral" : "") +
                       ((creation.flags & ZOO_SEQUENCE) != 0 ? " sequential" : "");
    for (int i = 0; i < creation.acl->count; ++i)
    {
        const ACL& right = creation.acl->data[i];
        if (std::string(right.id.scheme) != "world")
        {
            text += " acl " + std::to_string(right.perms) + " " + right.id.scheme + ":" + right.id.id;
        }
    }
    return text;
}

/// Where the results of a transaction go, as the real library arranges it when it is asked.
std::vector<zoo_op_result_t*> Destinations(int count, const zoo_op_t* steps, zoo_op_result_t* results)
{
    std::vector<zoo_op_result_t*> destinations;
    for (int i = 0; i < count; ++i)
    {
        if (steps[i].type == ZOO_CREATE_OP)
        {
            results[i].value = steps[i].create_op.buf;
            results[i].valuelen = steps[i].create_op.buflen;
        }
        destinations.push_back(&results[i]);
    }
    return destinations;
}

void WriteResults(const Request& request, const Reply& reply)
{
    for (std::size_t i = 0; i < request.results.size(); ++i)
    {
        zoo_op_result_t& result = *request.results[i];
        const bool before = reply.refused && i < *reply.refused;
        const bool behind = reply.refused && i > *reply.refused;
        result.err = before ? ZOK : behind ? static_cast<int>(ZRUNTIMEINCONSISTENCY) : reply.rc;
        if (result.err != ZOK)
        {
            result.value = nullptr;
        }
        else if (result.value != nullptr && i < reply.created.size())
        {
            const std::string& path = reply.created[i];
            const std::size_t bytes = std::min(path.size() + 1, static_cast<std::size_t>(result.valuelen));
            std::memcpy(result.value, path.c_str(), bytes);
        }
    }
}

void Complete(const Request& request, const Reply& reply)
{
    if (request.onString != nullptr)
    {
        const std::string& value = request.sent == Sent::Create ? reply.path : request.path;
        request.onString(reply.rc, reply.rc == ZOK ? value.c_str() : nullptr, request.context);
    }
    else if (request.onStrings != nullptr)
    {
        std::vector<char*> names;
        for (const std::string& child : reply.children)
        {
            names.push_back(const_cast<char*>(child.c_str()));
        }
        const String_vector children{static_cast<std::int32_t>(names.size()), names.data()};
        request.onStrings(reply.rc, reply.rc == ZOK ? &children : nullptr, request.context);
    }
    else if (request.onStat != nullptr)
    {
        Stat stat{};
        stat.ephemeralOwner = reply.ephemeralOwner;
        request.onStat(reply.rc, reply.rc == ZOK ? &stat : nullptr, request.context);
    }
    else if (request.onData != nullptr)
    {
        Stat stat{};
        stat.ephemeralOwner = reply.ephemeralOwner;
        const bool some = reply.rc == ZOK && reply.data;
        request.onData(reply.rc, some ? reply.data->data() : nullptr, some ? static_cast<int>(reply.data->size()) : -1,
                       reply.rc == ZOK ? &stat : nullptr, request.context);
    }
    else
    {
        WriteResults(request, reply);
        request.onVoid(reply.rc, request.context);
    }
}

}  // namespace

class ScriptedClientLibrary::Core
{
public:
    explicit Core(Journal& asked) : asked_(asked), worker_([this] { Work(); })
    {
        Core* none = nullptr;
        if (!g_library.compare_exchange_strong(none, this))
        {
            std::abort();
        }
    }

    ~Core()
    {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            const bool allClosed = changed_.wait_for(lock, kPatience, [this] {
                return std::all_of(handles_.begin(), handles_.end(), [](const auto& zh) { return zh->closed; });
            });
            EXPECT_TRUE(allClosed) << "a handle was left open";
            const auto missing = std::count_if(openings_.begin(), openings_.end(),
                                               [](const Opening& opening) { return !opening.optional; });
            EXPECT_EQ(missing, 0) << "handles were expected and not asked for";
            for (const auto& [request, replies] : replies_)
            {
                const bool used =
                    std::all_of(replies.begin(), replies.end(), [](const Reply& reply) { return reply.always; });
                EXPECT_TRUE(used) << "not asked: " << Name(request.first) << " " << request.second;
            }
            ending_ = true;
            changed_.notify_all();
        }
        worker_.join();
        g_library = nullptr;
    }

    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    void ExpectOpen(Opening opening)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        openings_.push_back(std::move(opening));
    }

    void Expect(Sent sent, const std::string& path, Reply reply)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        replies_[{sent, path}].push_back(std::move(reply));
    }

    void LoseAnswersAtClose()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        loseAnswersAtClose_ = true;
    }

    void WhenClosed(int handle, std::function<void()> act)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        Find(handle).whenClosed = std::move(act);
    }

    void Report(int handle, int state)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ReportLocked(FindOpen(handle), state);
    }

    void Break(int handle)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        FindOpen(handle).broken = true;
    }

    void GrantTimeout(int handle, int milliseconds)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        FindOpen(handle).sessionTimeout = milliseconds;
    }

    void Fire(int handle, int type, const std::string& path)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        zhandle_t& zh = FindOpen(handle);
        zh.armed.erase(path);
        Enqueue(zh, [&zh, type, path] { zh.watcher(&zh, type, ZOO_CONNECTED_STATE, path.c_str(), zh.context); });
    }

    void Answer(int handle, Sent sent, const std::string& path, const Reply& reply)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        zhandle_t& zh = FindOpen(handle);
        const auto request = std::find_if(zh.held.begin(), zh.held.end(), [&](const Request& candidate) {
            return candidate.sent == sent && candidate.path == path;
        });
        if (request == zh.held.end())
        {
            throw std::logic_error(std::string("nothing to answer: ") + Name(sent) + " " + path);
        }
        const Request found = *request;
        zh.held.erase(request);
        AnswerLocked(zh, found, reply);
    }

    void SetPaused(bool paused)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        paused_ = paused;
        changed_.notify_all();
    }

    void AwaitArrivals(int handle)
    {
        const zhandle_t* zh = nullptr;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            zh = &Find(handle);
        }
        AwaitArrivals(*zh);
    }

    void Write(int handle, const std::string& line)
    {
        log_callback_fn log = nullptr;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            log = Find(handle).log;
        }
        log(line.c_str());
    }

    template <typename Look>
    auto LookAt(int handle, Look&& look) const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return look(Find(handle));
    }

    int Handles() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<int>(handles_.size());
    }

    // What the library's functions do.

    zhandle_t* Open(const char* addresses, watcher_fn watcher, int sessionTimeout, void* context, log_callback_fn log)
    {
        Opening opening;
        zhandle_t* zh = nullptr;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (openings_.empty())
            {
                ADD_FAILURE() << "asked for a handle that was not expected";
                errno = EINVAL;
                return nullptr;
            }
            opening = std::move(openings_.front());
            openings_.pop_front();
            const int number = static_cast<int>(handles_.size()) + 1;
            if (opening.error == 0)
            {
                handles_.push_back(std::make_unique<zhandle_t>());
                zh = handles_.back().get();
                zh->number = number;
                zh->addresses = addresses;
                zh->watcher = watcher;
                zh->context = context;
                zh->log = log;
                zh->sessionTimeout = sessionTimeout;
                zh->identity.client_id = 0x1000 + number;
                zh->whenClosed = opening.whenClosed;
                if (opening.early)
                {
                    ReportAll(*zh, opening);
                }
            }
            asked_.Note((zh == nullptr ? "no" : std::to_string(number)) + " open " + addresses);
        }
        if (zh != nullptr && opening.early && !zh->broken)
        {
            AwaitArrivals(*zh);
        }
        if (opening.during)
        {
            opening.during();
        }
        if (zh == nullptr)
        {
            errno = opening.error;
            return nullptr;
        }
        if (!opening.early)
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            ReportAll(*zh, opening);
        }
        return zh;
    }

    int Send(zhandle_t* zh, Request request)
    {
        Reply reply;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            CheckOpen(*zh);
            ++zh->inside;
            auto& replies = replies_[{request.sent, request.path}];
            if (replies.empty())
            {
                ADD_FAILURE() << "not expected: " << zh->number << " " << Name(request.sent) << " " << request.path;
                reply.rc = ZSYSTEMERROR;
            }
            else
            {
                reply = replies.front();
                if (!reply.always)
                {
                    replies.pop_front();
                }
            }
        }
        if (reply.during)
        {
            reply.during();
        }
        const std::lock_guard<std::mutex> lock(mutex_);
        --zh->inside;
        asked_.Note(std::to_string(zh->number) + " " + Name(request.sent) + " " + request.path);
        if (reply.refusal != ZOK)
        {
            return reply.refusal;
        }
        if (reply.held)
        {
            zh->held.push_back(std::move(request));
        }
        else
        {
            AnswerLocked(*zh, request, reply);
        }
        return ZOK;
    }

    int Heartbeat(zhandle_t* zh, acl_completion_t completion, const void* data)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        CheckOpen(*zh);
        ++zh->heartbeats;
        Enqueue(*zh, [completion, data] { completion(ZNONODE, nullptr, nullptr, data); });
        return ZOK;
    }

    int Forget(zhandle_t* zh, const std::string& path, bool local)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        CheckOpen(*zh);
        EXPECT_TRUE(local) << "a watch was to be removed over the network: " << path;
        asked_.Note(std::to_string(zh->number) + " forget " + path);
        return zh->armed.erase(path) > 0 ? ZOK : ZNOWATCHER;
    }

    int ShowCredentials(const zhandle_t& zh, const std::string& credentials)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        CheckOpen(zh);
        asked_.Note(std::to_string(zh.number) + " credentials " + credentials);
        return ZOK;
    }

    void CheckWatcher(const zhandle_t& zh, watcher_fn watcher, const void* context) const
    {
        EXPECT_TRUE(watcher == zh.watcher && context == zh.context) << "a second watcher";
    }

    int Close(zhandle_t* zh)
    {
        zh->closeBegun = true;
        std::function<void()> act;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            CheckOpen(*zh);
            EXPECT_EQ(zh->inside, 0) << "closed under the feet of a call";
            EXPECT_NE(std::this_thread::get_id(), worker_.get_id()) << "closed by a thread that closing waits for";
            zh->closing = true;
            asked_.Note(std::to_string(zh->number) + " close");
            act = std::exchange(zh->whenClosed, nullptr);
        }
        if (act)
        {
            act();
        }
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            zh->deaf = true;
            const std::deque<Request> unanswered = std::exchange(zh->held, {});
            for (const Request& request : unanswered)
            {
                if (!loseAnswersAtClose_)
                {
                    Reply closing;
                    closing.rc = ZCLOSING;
                    AnswerLocked(*zh, request, closing);
                }
            }
        }
        AwaitArrivals(*zh);
        const std::lock_guard<std::mutex> lock(mutex_);
        zh->closed = true;
        changed_.notify_all();
        return ZOK;
    }

    /// Runs `look` at a handle that must not be closed yet.
    template <typename Look>
    auto With(const zhandle_t* zh, Look&& look)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        EXPECT_FALSE(zh->closed) << "used after it was closed: handle " << zh->number;
        return look();
    }

private:
    struct Arrival
    {
        zhandle_t* zh;
        std::function<void()> act;
    };

    void Work()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;)
        {
            changed_.wait(lock, [this] { return ending_ || (!arrivals_.empty() && !paused_); });
            if (arrivals_.empty())
            {
                return;
            }
            const Arrival arrival = std::move(arrivals_.front());
            arrivals_.pop_front();
            lock.unlock();
            arrival.act();
            lock.lock();
            --arrival.zh->queued;
            changed_.notify_all();
        }
    }

    void Enqueue(zhandle_t& zh, std::function<void()> act)
    {
        ++zh.queued;
        arrivals_.push_back({&zh, std::move(act)});
        changed_.notify_all();
    }

    void AwaitArrivals(const zhandle_t& zh)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        const bool through = changed_.wait_for(lock, kPatience, [&] { return zh.queued == 0; });
        EXPECT_TRUE(through) << "a callback keeps a thread of the library";
    }

    void ReportAll(zhandle_t& zh, const Opening& opening)
    {
        for (const int state : opening.states)
        {
            ReportLocked(zh, state);
        }
    }

    void ReportLocked(zhandle_t& zh, int state)
    {
        const bool final = state == ZOO_EXPIRED_SESSION_STATE || state == ZOO_AUTH_FAILED_STATE;
        zh.broken = zh.broken || final;
        zh.connected = state == ZOO_CONNECTED_STATE;
        Enqueue(zh, [&zh, state, final] {
            zh.watcher(&zh, ZOO_SESSION_EVENT, state, "", zh.context);
            EXPECT_TRUE(!final || zh.closeBegun)
                << "a thread that leaves before its handle is being closed may free it under the closing thread";
        });
    }

    void AnswerLocked(zhandle_t& zh, const Request& request, const Reply& reply)
    {
        if (request.sent == Sent::WatchExists && (reply.rc == ZOK || reply.rc == ZNONODE))
        {
            zh.armed.insert(request.path);
        }
        Enqueue(zh, [request, reply] { Complete(request, reply); });
    }

    void CheckOpen(const zhandle_t& zh) const
    {
        EXPECT_FALSE(zh.closing) << "used while or after it was closed: handle " << zh.number;
    }

    zhandle_t& Find(int handle) const
    {
        if (handle < 1 || static_cast<std::size_t>(handle) > handles_.size())
        {
            throw std::logic_error("there is no handle " + std::to_string(handle));
        }
        return *handles_[static_cast<std::size_t>(handle) - 1];
    }

    zhandle_t& FindOpen(int handle) const
    {
        zhandle_t& zh = Find(handle);
        if (zh.deaf)
        {
            throw std::logic_error("handle " + std::to_string(handle) + " is closed");
        }
        return zh;
    }

    Journal& asked_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Opening> openings_;
    std::map<std::pair<Sent, std::string>, std::deque<Reply>> replies_;
    bool loseAnswersAtClose_ = false;
    std::vector<std::unique_ptr<zhandle_t>> handles_;
    std::deque<Arrival> arrivals_;
    bool paused_ = false;
    bool ending_ = false;
    /// Last, because it uses the others from the start.
    std::thread worker_;
};

ScriptedClientLibrary::ScriptedClientLibrary() : core_(std::make_unique<Core>(asked_)) {}

ScriptedClientLibrary::~ScriptedClientLibrary() = default;

void ScriptedClientLibrary::ExpectOpen(Opening opening)
{
    core_->ExpectOpen(std::move(opening));
}

void ScriptedClientLibrary::Expect(Sent sent, const std::string& path, Reply reply)
{
    core_->Expect(sent, path, std::move(reply));
}

void ScriptedClientLibrary::WhenClosed(int handle, std::function<void()> act)
{
    core_->WhenClosed(handle, std::move(act));
}

void ScriptedClientLibrary::LoseAnswersAtClose()
{
    core_->LoseAnswersAtClose();
}

void ScriptedClientLibrary::Report(int handle, int state)
{
    core_->Report(handle, state);
}

void ScriptedClientLibrary::Break(int handle)
{
    core_->Break(handle);
}

void ScriptedClientLibrary::Fire(int handle, int type, const std::string& path)
{
    core_->Fire(handle, type, path);
}

void ScriptedClientLibrary::Answer(int handle, Sent sent, const std::string& path, Reply reply)
{
    core_->Answer(handle, sent, path, reply);
}

void ScriptedClientLibrary::Pause()
{
    core_->SetPaused(true);
}

void ScriptedClientLibrary::Resume()
{
    core_->SetPaused(false);
}

void ScriptedClientLibrary::AwaitArrivals(int handle)
{
    core_->AwaitArrivals(handle);
}

void ScriptedClientLibrary::Write(int handle, const std::string& line)
{
    core_->Write(handle, line);
}

int ScriptedClientLibrary::Handles() const
{
    return core_->Handles();
}

std::set<std::string> ScriptedClientLibrary::Armed(int handle) const
{
    return core_->LookAt(handle, [](const zhandle_t& zh) { return zh.armed; });
}

std::int64_t ScriptedClientLibrary::Identity(int handle) const
{
    return core_->LookAt(handle, [](const zhandle_t& zh) { return zh.identity.client_id; });
}

std::string ScriptedClientLibrary::Addresses(int handle) const
{
    return core_->LookAt(handle, [](const zhandle_t& zh) { return zh.addresses; });
}

void ScriptedClientLibrary::GrantTimeout(int handle, int milliseconds)
{
    core_->GrantTimeout(handle, milliseconds);
}

int ScriptedClientLibrary::SessionTimeout(int handle) const
{
    return core_->LookAt(handle, [](const zhandle_t& zh) { return zh.sessionTimeout; });
}

std::size_t ScriptedClientLibrary::Heartbeats(int handle) const
{
    return core_->LookAt(handle, [](const zhandle_t& zh) { return zh.heartbeats; });
}

int ScriptedClientLibrary::ResolutionDelay(int handle) const
{
    return core_->LookAt(handle, [](const zhandle_t& zh) { return zh.resolutionDelay; });
}

int ScriptedClientLibrary::LogLevel()
{
    return g_logLevel;
}

class ScriptedNameService::Core
{
public:
    struct Outcome
    {
        std::vector<std::string> addresses{};
        int error = 0;
        bool hangs = false;
    };

    Core()
    {
        Core* none = nullptr;
        if (!g_names.compare_exchange_strong(none, this))
        {
            std::abort();
        }
    }

    ~Core()
    {
        g_names = nullptr;
        const std::lock_guard<std::mutex> lock(mutex_);
        EXPECT_EQ(hanging_, 0) << "a look-up hangs";
        for (const auto& [host, outcomes] : outcomes_)
        {
            EXPECT_TRUE(outcomes.empty()) << "not looked up: " << host;
        }
    }

    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    void Expect(const std::string& host, Outcome outcome)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        outcomes_[host].push_back(std::move(outcome));
    }

    void Release()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        released_ = true;
        changed_.notify_all();
        EXPECT_TRUE(changed_.wait_for(lock, kPatience, [this] { return hanging_ == 0; }));
    }

    Outcome Take(const std::string& host)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        std::deque<Outcome>& outcomes = outcomes_[host];
        if (outcomes.empty())
        {
            ADD_FAILURE() << "looked up and not expected: " << host;
            return {{}, EAI_NONAME, false};
        }
        Outcome outcome = std::move(outcomes.front());
        outcomes.pop_front();
        if (outcome.hangs)
        {
            ++hanging_;
            changed_.notify_all();
            changed_.wait(lock, [this] { return released_; });
            --hanging_;
            changed_.notify_all();
            outcome.error = EAI_AGAIN;
        }
        return outcome;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, std::deque<Outcome>> outcomes_;
    int hanging_ = 0;
    bool released_ = false;
};

ScriptedNameService::ScriptedNameService() : core_(std::make_unique<Core>()) {}

ScriptedNameService::~ScriptedNameService() = default;

void ScriptedNameService::Expect(const std::string& host, std::vector<std::string> addresses)
{
    core_->Expect(host, {std::move(addresses), 0, false});
}

void ScriptedNameService::ExpectFailure(const std::string& host, int error)
{
    core_->Expect(host, {{}, error, false});
}

void ScriptedNameService::ExpectHanging(const std::string& host)
{
    core_->Expect(host, {{}, 0, true});
}

void ScriptedNameService::Release()
{
    core_->Release();
}

namespace {

using Ask = int (*)(const char*, const char*, const addrinfo*, addrinfo**);

Ask RealNameService()
{
    static const Ask real = reinterpret_cast<Ask>(dlsym(RTLD_NEXT, "getaddrinfo"));
    return real;
}

int LookUp(const char* host, const char* port, const addrinfo* hints, addrinfo** found)
{
    addrinfo numeric = hints != nullptr ? *hints : addrinfo{};
    numeric.ai_flags |= AI_NUMERICHOST;
    const int error = RealNameService()(host, port, &numeric, found);
    ScriptedNameService::Core* const names = g_names;
    if (error == 0 || host == nullptr || (hints != nullptr && (hints->ai_flags & AI_NUMERICHOST) != 0))
    {
        return error;
    }
    if (names == nullptr)
    {
        return RealNameService()(host, port, hints, found);
    }
    const ScriptedNameService::Core::Outcome outcome = names->Take(host);
    if (outcome.error != 0)
    {
        return outcome.error;
    }
    *found = nullptr;
    for (auto address = outcome.addresses.rbegin(); address != outcome.addresses.rend(); ++address)
    {
        addrinfo* entry = nullptr;
        const int bad = RealNameService()(address->c_str(), port, &numeric, &entry);
        if (bad != 0)
        {
            return bad;
        }
        entry->ai_next = std::exchange(*found, entry);
    }
    return 0;
}

ScriptedClientLibrary::Core& Library()
{
    ScriptedClientLibrary::Core* const library = g_library;
    if (library == nullptr)
    {
        std::abort();
    }
    return *library;
}

}  // namespace
}  // namespace kx::velmor::testing_support

// The functions in whose place this stands. Their names and types are the client library's and the C library's.

using kx::velmor::testing_support::g_logLevel;
using kx::velmor::testing_support::Library;

extern "C" {

int getaddrinfo(const char* host, const char* port, const addrinfo* hints, addrinfo** found)
{
    return kx::velmor::testing_support::LookUp(host, port, hints, found);
}

zhandle_t* zookeeper_init2(const char* host, watcher_fn fn, int recv_timeout, const clientid_t* clientid, void* context,
                           int /*flags*/, log_callback_fn log_callback)
{
    EXPECT_EQ(clientid, nullptr) << "a session of somebody else";
    return Library().Open(host, fn, recv_timeout, context, log_callback);
}

int zookeeper_close(zhandle_t* zh)
{
    return Library().Close(zh);
}

int zoo_set_servers_resolution_delay(zhandle_t* zh, int delay_ms)
{
    Library().With(zh, [&] { zh->resolutionDelay = delay_ms; });
    return ZOK;
}

int zoo_acreate(zhandle_t* zh, const char* path, const char* /*value*/, int /*valuelen*/, const ACL_vector* /*acl*/,
                int /*mode*/, string_completion_t completion, const void* data)
{
    Request request{Sent::Create, path};
    request.onString = completion;
    request.context = data;
    return Library().Send(zh, request);
}

int zoo_aget_children(zhandle_t* zh, const char* path, int watch, strings_completion_t completion, const void* data)
{
    EXPECT_EQ(watch, 0);
    Request request{Sent::GetChildren, path};
    request.onStrings = completion;
    request.context = data;
    return Library().Send(zh, request);
}

int zoo_aget(zhandle_t* zh, const char* path, int watch, data_completion_t completion, const void* data)
{
    EXPECT_EQ(watch, 0);
    Request request{Sent::GetData, path};
    request.onData = completion;
    request.context = data;
    return Library().Send(zh, request);
}

int zoo_amulti(zhandle_t* zh, int count, const zoo_op_t* ops, zoo_op_result_t* results, void_completion_t completion,
               const void* data)
{
    std::string steps;
    for (int i = 0; i < count; ++i)
    {
        steps += (i > 0 ? ", " : "") + kx::velmor::testing_support::Describe(ops[i]);
    }
    Request request{Sent::Transact, steps};
    request.onVoid = completion;
    request.context = data;
    request.results = kx::velmor::testing_support::Destinations(count, ops, results);
    return Library().Send(zh, request);
}

int zoo_aexists(zhandle_t* zh, const char* path, int watch, stat_completion_t completion, const void* data)
{
    EXPECT_EQ(watch, 0);
    Request request{Sent::Exists, path};
    request.onStat = completion;
    request.context = data;
    return Library().Send(zh, request);
}

int zoo_awexists(zhandle_t* zh, const char* path, watcher_fn watcher, void* watcherCtx, stat_completion_t completion,
                 const void* data)
{
    Library().CheckWatcher(*zh, watcher, watcherCtx);
    Request request{Sent::WatchExists, path};
    request.onStat = completion;
    request.context = data;
    return Library().Send(zh, request);
}

int zoo_adelete(zhandle_t* zh, const char* path, int version, void_completion_t completion, const void* data)
{
    EXPECT_EQ(version, -1) << "a wrong version was asked for";
    Request request{Sent::Delete, path};
    request.onVoid = completion;
    request.context = data;
    return Library().Send(zh, request);
}

int zoo_aget_acl(zhandle_t* zh, const char* /*path*/, acl_completion_t completion, const void* data)
{
    return Library().Heartbeat(zh, completion, data);
}

int zoo_async(zhandle_t* zh, const char* path, string_completion_t completion, const void* data)
{
    Request request{Sent::Sync, path};
    request.onString = completion;
    request.context = data;
    return Library().Send(zh, request);
}

int zoo_remove_watches(zhandle_t* zh, const char* path, ZooWatcherType wtype, watcher_fn watcher, void* watcherCtx,
                       int local)
{
    EXPECT_EQ(wtype, ZWATCHTYPE_DATA);
    Library().CheckWatcher(*zh, watcher, watcherCtx);
    return Library().Forget(zh, path, local != 0);
}

int zoo_add_auth(zhandle_t* zh, const char* scheme, const char* cert, int certLen, void_completion_t completion,
                 const void* /*data*/)
{
    EXPECT_EQ(completion, nullptr) << "it would run on the thread that keeps the session alive";
    return Library().ShowCredentials(*zh,
                                     std::string(scheme) + " " + std::string(cert, static_cast<std::size_t>(certLen)));
}

const clientid_t* zoo_client_id(zhandle_t* zh)
{
    return Library().With(zh, [&] { return &zh->identity; });
}

int zoo_recv_timeout(zhandle_t* zh)
{
    return Library().With(zh, [&] { return zh->sessionTimeout; });
}

int is_unrecoverable(zhandle_t* zh)
{
    return Library().With(zh, [&] { return zh->broken ? static_cast<int>(ZINVALIDSTATE) : static_cast<int>(ZOK); });
}

sockaddr* zookeeper_get_connected_host(zhandle_t* zh, sockaddr* addr, socklen_t* addr_len)
{
    return Library().With(zh, [&]() -> sockaddr* {
        if (!zh->connected)
        {
            return nullptr;
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(1000 + zh->number));
        std::memcpy(addr, &address, sizeof(address));
        *addr_len = sizeof(address);
        return addr;
    });
}

void zoo_set_debug_level(ZooLogLevel logLevel)
{
    g_logLevel = static_cast<int>(logLevel);
}
}
