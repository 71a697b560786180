#pragma once

#include "tests/support/journal.h"

#include <kx/velmor/connection.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::testing_support {

/// The operations that a script can bend.
enum class Call
{
    RootPath,
    Create,
    GetChildren,
    Exists,
    WatchingExists,
    GuaranteedDelete,
    ClientId,
};

/// How one call differs from the ordinary.
struct Step
{
    /// Runs `hook` before anything else, on the calling thread and with no lock of the double held. What it throws
    /// leaves the call.
    Step& Before(std::function<void()> hook);
    /// The call does nothing but return `rc`.
    Step& Returns(int rc);
    /// The call does its work and returns `rc` all the same: the reply was lost.
    Step& DoesAndReturns(int rc);
    /// `Create` leaves this in its out-string, whatever else it does.
    Step& Leaves(std::string createdPath);

    std::function<void()> before;
    std::optional<int> result;
    bool worksAnyway = false;
    std::optional<std::string> leaves;
};

/// A watch that a connection has handed out. Good for as long as the service.
struct Watch
{
    std::string path;
    Connection::WatchState* state;
    std::weak_ptr<Connection::WatchState> owners;

    /// Armed: an event would reach the callback.
    bool IsArmed() const;
    /// How many handles keep it, or others besides the double.
    long Keepers() const;
    /// Delivers one event by the rules: takes the state's mutex, does nothing when the state is not active, runs the
    /// callback outside the mutex. The state stays armed. True when there was a callback to run.
    bool Fire(int type, int connectionState, const std::string& eventPath) const;
    /// Delivers the event of the node's deletion, as above.
    bool Fire() const;
};

struct ScriptedSession;
struct ScriptedServiceCore;

/// A `Connection` to a `ScriptedService`. It writes each call and its arguments into the journal, does what the service
/// would do, and differs where its script says so.
///
/// Events wait until `Deliver`, or an `EventThread`, runs their callbacks. A node event ends the watch on the node; its
/// state gets session events until its handle releases it. Watches that were let go of without being disarmed still
/// fire, unless the service drops them; their node event is their last event.
///
/// Threads: any.
class ScriptedConnection : public Connection
{
public:
    ScriptedConnection(std::shared_ptr<ScriptedServiceCore> core, std::shared_ptr<ScriptedSession> session);

    /// The script for the next call of this kind, and for the `n`-th from now on, where 1 is the next. A step that no
    /// call has used up fails the test when the service goes.
    Step& Next(Call call);
    Step& Nth(Call call, int n);

    /// Runs before every operation from now on, as `Step::Before`.
    void BeforeEveryCall(std::function<void()> hook);

    /// Every operation without a step of its own returns `rc` from now on, until `Recover`, which is a new session when
    /// the former one has expired.
    void FailEveryCall(int rc);
    void Recover();

    /// What `ClientId` tells. Ephemeral nodes belong to the session all the same.
    void SetIdentity(std::optional<std::int64_t> id);

    /// What the last `Create` found in its out-string; empty when it was given none.
    std::optional<std::string> RoomOfLastCreate() const;

    /// All watches ever handed out, those of failed calls included, in order.
    std::vector<Watch> Watches() const;
    /// The newest on the path. Throws `std::logic_error` when there is none.
    Watch LastWatch(const std::string& path) const;

    /// Tells every registered watch, consuming none.
    void SessionEvent(int connectionState);

    /// Runs the callbacks of pending events on this thread, and of those that come up meanwhile, until none is left.
    /// Returns how many ran. What a callback throws passes through; its event is used up.
    std::size_t Deliver();

    const std::string& RootPath() const override;
    int Create(std::string path, const std::string& data, const ACL_vector& acl, int flags,
               std::string* createdPath) const override;
    int GetChildren(std::string path, std::vector<std::string>& children) const override;
    int Exists(std::string path, Stat* stat) const override;
    std::pair<int, WatchHandle> Exists(std::string path, WatchCallback callback, Stat* stat) const override;
    int GuaranteedDelete(std::string path) const override;
    std::unique_ptr<clientid_t> ClientId() const override;

private:
    friend class EventThread;
    friend class ScriptedService;

    /// Notes the call, runs the hook of its step, and returns the step.
    Step Begin(Call call, const std::string& line) const;
    /// Runs one callback, if an event is pending.
    bool DeliverOne(std::size_t& ran);

    const std::shared_ptr<ScriptedServiceCore> core_;
    const std::shared_ptr<ScriptedSession> session_;
};

}  // namespace kx::velmor::testing_support
