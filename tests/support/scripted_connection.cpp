#include "tests/support/scripted_connection.h"

#include "tests/support/scripted_core.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace kx::velmor::testing_support {

namespace {

using WatchState = Connection::WatchState;

/// "world:anyone:31" for the open list.
std::string Describe(const ACL_vector& acl)
{
    std::string text;
    for (std::int32_t i = 0; i < acl.count; ++i)
    {
        const ACL& entry = acl.data[i];
        text +=
            (i == 0 ? "" : ",") + std::string(entry.id.scheme) + ":" + entry.id.id + ":" + std::to_string(entry.perms);
    }
    return text;
}

std::string DescribeFlags(int flags)
{
    std::string text;
    if ((flags & ZOO_EPHEMERAL) != 0)
    {
        text += " ephemeral";
    }
    if ((flags & ZOO_SEQUENCE) != 0)
    {
        text += " sequential";
    }
    const int others = flags & ~(ZOO_EPHEMERAL | ZOO_SEQUENCE);
    return others == 0 ? text : text + " flags:" + std::to_string(others);
}

bool RunCallback(WatchState& state, int type, int connectionState, const std::string& path)
{
    Connection::WatchCallback callback;
    {
        const std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.active || !state.callback)
        {
            return false;
        }
        callback = state.callback;
    }
    callback(type, connectionState, path);
    return true;
}

/// Drops the callback of a state that the caller and the session alone still own.
void DropIfReleased(const std::shared_ptr<WatchState>& state)
{
    constexpr long kWithoutHandle = 2;
    if (state.use_count() != kWithoutHandle)
    {
        return;
    }
    // Destroyed without the mutex.
    Connection::WatchCallback callback;
    const std::lock_guard<std::mutex> lock(state->mutex);
    callback.swap(state->callback);
    state->active = false;
    state->hasCallback = false;
}

}  // namespace

Step& Step::Before(std::function<void()> hook)
{
    before = std::move(hook);
    return *this;
}

Step& Step::Returns(int rc)
{
    result = rc;
    worksAnyway = false;
    return *this;
}

Step& Step::DoesAndReturns(int rc)
{
    result = rc;
    worksAnyway = true;
    return *this;
}

Step& Step::Leaves(std::string createdPath)
{
    leaves = std::move(createdPath);
    return *this;
}

bool Watch::IsArmed() const
{
    const std::lock_guard<std::mutex> lock(state->mutex);
    return state->active && state->callback;
}

long Watch::Keepers() const
{
    return owners.use_count() - 1;
}

bool Watch::Fire(int type, int connectionState, const std::string& eventPath) const
{
    return RunCallback(*state, type, connectionState, eventPath);
}

bool Watch::Fire() const
{
    return Fire(ZOO_DELETED_EVENT, ZOO_CONNECTED_STATE, path);
}

ScriptedConnection::ScriptedConnection(std::shared_ptr<ScriptedServiceCore> core,
                                       std::shared_ptr<ScriptedSession> session)
    : core_(std::move(core)), session_(std::move(session))
{}

Step& ScriptedConnection::Next(Call call)
{
    return Nth(call, 1);
}

Step& ScriptedConnection::Nth(Call call, int n)
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    return session_->script[{call, session_->calls[call] + n}];
}

void ScriptedConnection::BeforeEveryCall(std::function<void()> hook)
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    session_->beforeEveryCall = std::move(hook);
}

void ScriptedConnection::FailEveryCall(int rc)
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    session_->everyCall = rc;
}

void ScriptedConnection::Recover()
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    session_->everyCall.reset();
}

void ScriptedConnection::SetIdentity(std::optional<std::int64_t> id)
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    session_->identity = id;
}

std::optional<std::string> ScriptedConnection::RoomOfLastCreate() const
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    return session_->room;
}

std::vector<Watch> ScriptedConnection::Watches() const
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    return session_->watches;
}

Watch ScriptedConnection::LastWatch(const std::string& path) const
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    const auto& watches = session_->watches;
    const auto found =
        std::find_if(watches.rbegin(), watches.rend(), [&](const Watch& watch) { return watch.path == path; });
    if (found == watches.rend())
    {
        throw std::logic_error("No watch on " + path);
    }
    return *found;
}

void ScriptedConnection::SessionEvent(int connectionState)
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    core_->SessionEvent(*session_, connectionState);
}

std::size_t ScriptedConnection::Deliver()
{
    std::size_t ran = 0;
    while (DeliverOne(ran))
    {}
    return ran;
}

bool ScriptedConnection::DeliverOne(std::size_t& ran)
{
    Delivery next;
    bool dropped = false;
    {
        const std::lock_guard<std::mutex> lock(core_->mutex);
        if (session_->pending.empty())
        {
            return false;
        }
        next = std::move(session_->pending.front());
        session_->pending.pop_front();
        dropped = core_->IsDropped(next.state);
        session_->delivering = true;
    }
    // Reset also when a callback throws.
    const std::shared_ptr<void> done(nullptr, [this](void*) {
        const std::lock_guard<std::mutex> lock(core_->mutex);
        session_->delivering = false;
        core_->changed.notify_all();
    });
    if (const auto state = next.state.lock(); state && !dropped)
    {
        ran += RunCallback(*state, next.type, next.connectionState, next.path) ? 1 : 0;
    }
    if (const auto state = next.state.lock(); state && next.type != ZOO_SESSION_EVENT)
    {
        DropIfReleased(state);
    }
    return true;
}

Step ScriptedConnection::Begin(Call call, const std::string& line) const
{
    core_->journal.Note(session_->label.empty() ? line : session_->label + ": " + line);
    Step step;
    std::function<void()> beforeEveryCall;
    {
        const std::lock_guard<std::mutex> lock(core_->mutex);
        beforeEveryCall = session_->beforeEveryCall;
        const auto scripted = session_->script.find({call, ++session_->calls[call]});
        if (scripted != session_->script.end())
        {
            step = std::move(scripted->second);
            session_->script.erase(scripted);
        }
        else
        {
            step.result = session_->everyCall;
        }
    }
    if (beforeEveryCall)
    {
        beforeEveryCall();
    }
    if (step.before)
    {
        step.before();
    }
    return step;
}

const std::string& ScriptedConnection::RootPath() const
{
    Begin(Call::RootPath, "RootPath");
    return session_->rootPath;
}

int ScriptedConnection::Create(std::string path, const std::string& data, const ACL_vector& acl, int flags,
                               std::string* createdPath) const
{
    const Step step =
        Begin(Call::Create, "Create " + path + DescribeFlags(flags) + " " + Describe(acl) +
                                (data.empty() ? "" : " data:" + data) +
                                (createdPath == nullptr ? "" : " room:" + std::to_string(createdPath->size())));

    const std::lock_guard<std::mutex> lock(core_->mutex);
    session_->room = createdPath == nullptr ? std::nullopt : std::make_optional(*createdPath);
    int rc = step.result.value_or(ZOK);
    if (!step.result || step.worksAnyway)
    {
        const bool sequential = (flags & ZOO_SEQUENCE) != 0;
        const std::size_t suffix = sequential ? 10 : 0;
        std::string created;
        int done = ZBADARGUMENTS;
        if (createdPath == nullptr || createdPath->size() >= path.size() + suffix)
        {
            done = core_->Create(session_->InTree(path), (flags & ZOO_EPHEMERAL) != 0 ? session_->id : 0, sequential,
                                 created);
        }
        if (done == ZOK && createdPath != nullptr)
        {
            *createdPath = created.substr(session_->rootPath.size());
        }
        rc = step.result.value_or(done);
    }
    if (step.leaves && createdPath != nullptr)
    {
        *createdPath = *step.leaves;
    }
    return rc;
}

int ScriptedConnection::GetChildren(std::string path, std::vector<std::string>& children) const
{
    const Step step = Begin(Call::GetChildren, "GetChildren " + path + (children.empty() ? "" : " into a full list"));
    if (step.result)
    {
        return *step.result;
    }
    const std::lock_guard<std::mutex> lock(core_->mutex);
    return core_->tree.Children(session_->InTree(path), children);
}

namespace {

/// `core.mutex` is held.
int Look(const ScriptedServiceCore& core, const std::string& path, Stat* stat)
{
    const NodeTree::Node* const node = core.tree.Find(path);
    if (node == nullptr)
    {
        return ZNONODE;
    }
    if (stat != nullptr)
    {
        *stat = StatOf(*node);
    }
    return ZOK;
}

}  // namespace

int ScriptedConnection::Exists(std::string path, Stat* stat) const
{
    const Step step = Begin(Call::Exists, "Exists " + path + (stat == nullptr ? "" : " stat"));
    if (step.result)
    {
        return *step.result;
    }
    const std::lock_guard<std::mutex> lock(core_->mutex);
    return Look(*core_, session_->InTree(path), stat);
}

std::pair<int, Connection::WatchHandle> ScriptedConnection::Exists(std::string path, WatchCallback callback,
                                                                   Stat* stat) const
{
    const Step step = Begin(Call::WatchingExists, "Exists " + path + " watching" + (stat == nullptr ? "" : " stat"));

    auto state = std::make_shared<WatchState>();
    state->active = true;
    state->hasCallback = true;
    state->callback = std::move(callback);

    const std::lock_guard<std::mutex> lock(core_->mutex);
    session_->states.push_back(state);
    session_->watches.push_back({path, state.get(), state});
    if (!step.result || step.worksAnyway)
    {
        session_->registered.emplace_back(session_->InTree(path), state);
    }
    const int rc = step.result ? *step.result : Look(*core_, session_->InTree(path), stat);
    return {rc, WatchHandle(std::move(state))};
}

int ScriptedConnection::GuaranteedDelete(std::string path) const
{
    const Step step = Begin(Call::GuaranteedDelete, "GuaranteedDelete " + path);
    if (step.result && !step.worksAnyway)
    {
        return *step.result;
    }
    const std::lock_guard<std::mutex> lock(core_->mutex);
    const int rc = core_->Delete(session_->InTree(path));
    return step.result.value_or(rc);
}

std::unique_ptr<clientid_t> ScriptedConnection::ClientId() const
{
    Begin(Call::ClientId, "ClientId");
    const std::lock_guard<std::mutex> lock(core_->mutex);
    if (!session_->identity)
    {
        return nullptr;
    }
    auto id = std::make_unique<clientid_t>();
    id->client_id = *session_->identity;
    std::memset(id->passwd, 0x5a, sizeof(id->passwd));
    return id;
}

}  // namespace kx::velmor::testing_support
