#include "tests/support/scripted_service.h"

#include "tests/support/await.h"
#include "tests/support/scripted_core.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

namespace kx::velmor::testing_support {

namespace {

const char* NameOf(Call call)
{
    switch (call)
    {
        case Call::RootPath:
            return "RootPath";
        case Call::Create:
            return "Create";
        case Call::GetChildren:
            return "GetChildren";
        case Call::Exists:
            return "Exists";
        case Call::WatchingExists:
            return "watching Exists";
        case Call::GuaranteedDelete:
            return "GuaranteedDelete";
        case Call::ClientId:
            return "ClientId";
    }
    throw std::logic_error("No such call");
}

void Insist(int rc, const std::string& what)
{
    if (rc != ZOK)
    {
        throw std::logic_error(what + ": " + zerror(rc));
    }
}

/// `core.mutex` is held.
void AddWithAncestors(ScriptedServiceCore& core, const std::string& path)
{
    if (core.tree.Find(path) != nullptr)
    {
        return;
    }
    AddWithAncestors(core, ParentOf(path));
    std::string created;
    Insist(core.Create(path, 0, false, created), "Add " + path);
}

}  // namespace

ScriptedService::ScriptedService(Journal& journal) : core_(std::make_shared<ScriptedServiceCore>(journal)) {}

ScriptedService::~ScriptedService()
{
    std::vector<std::shared_ptr<ScriptedSession>> sessions;
    {
        const std::lock_guard<std::mutex> lock(core_->mutex);
        sessions = core_->sessions;
    }
    for (const auto& session : sessions)
    {
        for (const auto& [at, step] : session->script)
        {
            ADD_FAILURE() << "The script is not used up: " << session->label << " " << NameOf(at.first) << " number "
                          << at.second << " was never called";
        }
        // A candidate and its watches keep each other.
        for (const auto& state : session->states)
        {
            Connection::WatchCallback dropped;
            const std::lock_guard<std::mutex> lock(state->mutex);
            dropped.swap(state->callback);
            state->active = false;
            state->hasCallback = false;
        }
    }
}

std::shared_ptr<ScriptedConnection> ScriptedService::Open(const std::string& label, const std::string& rootPath)
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    if (!rootPath.empty())
    {
        AddWithAncestors(*core_, rootPath);
    }
    const auto id = static_cast<std::int64_t>(0x1000 + core_->sessions.size());
    core_->sessions.push_back(std::make_shared<ScriptedSession>(ScriptedSession{label, rootPath, id}));
    return std::make_shared<ScriptedConnection>(core_, core_->sessions.back());
}

void ScriptedService::DropWatchesThatAreLetGoOf()
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    core_->dropsWatches = true;
}

void ScriptedService::Add(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    AddWithAncestors(*core_, path);
}

void ScriptedService::Add(const std::string& path, const ScriptedConnection& owner)
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    AddWithAncestors(*core_, ParentOf(path));
    std::string created;
    Insist(core_->Create(path, owner.session_->id, false, created), "Add " + path);
}

void ScriptedService::Delete(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    Insist(core_->Delete(path), "Delete " + path);
}

void ScriptedService::Touch(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    core_->tree.BeginTransaction();
    Insist(core_->tree.Set(path, std::string()), "Touch " + path);
    core_->NodeEvent(path, ZOO_CHANGED_EVENT);
}

void ScriptedService::Expire(ScriptedConnection& connection)
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    ScriptedSession& session = *connection.session_;
    session.everyCall = ZSESSIONEXPIRED;
    core_->SessionEvent(session, ZOO_EXPIRED_SESSION_STATE);
    for (auto& watch : session.registered)
    {
        // It hears of sessions from now on, and of no node.
        watch.first.clear();
    }
    for (const std::string& path : core_->tree.OwnedBy(session.id))
    {
        Insist(core_->Delete(path), "Expire " + path);
    }
}

bool ScriptedService::Has(const std::string& path) const
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    return core_->tree.Find(path) != nullptr;
}

std::vector<std::string> ScriptedService::Children(const std::string& path) const
{
    const std::lock_guard<std::mutex> lock(core_->mutex);
    std::vector<std::string> children;
    Insist(core_->tree.Children(path, children), "Children " + path);
    std::sort(children.begin(), children.end());
    return children;
}

void ScriptedService::AwaitQuiet() const
{
    std::unique_lock<std::mutex> lock(core_->mutex);
    const bool quiet = core_->changed.wait_for(lock, kPatience, [this] {
        return std::all_of(core_->sessions.begin(), core_->sessions.end(),
                           [](const auto& session) { return session->pending.empty() && !session->delivering; });
    });
    if (!quiet)
    {
        throw std::runtime_error("There are still events");
    }
}

EventThread::EventThread(std::shared_ptr<ScriptedConnection> connection)
    : connection_(std::move(connection)), thread_([this] {
          ScriptedServiceCore& core = *connection_->core_;
          ScriptedSession& session = *connection_->session_;
          std::unique_lock<std::mutex> lock(core.mutex);
          while (true)
          {
              core.changed.wait(lock, [&] { return session.stopping || !session.pending.empty(); });
              if (session.stopping)
              {
                  return;
              }
              lock.unlock();
              connection_->Deliver();
              lock.lock();
          }
      })
{}

EventThread::~EventThread()
{
    {
        const std::lock_guard<std::mutex> lock(connection_->core_->mutex);
        connection_->session_->stopping = true;
    }
    connection_->core_->changed.notify_all();
    thread_.join();
}

}  // namespace kx::velmor::testing_support
