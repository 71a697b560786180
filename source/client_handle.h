#pragma once

#include "source/request.h"
#include "source/sync.h"
#include "source/transaction_steps.h"

#include <kx/velmor/boot_clock.h>
#include <kx/velmor/transaction.h>

#include <sys/types.h>
#include <zookeeper/zookeeper.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor {

/// What the client library reports of one session, besides the answers to requests.
struct SessionEvent
{
    /// The ZooKeeper connection state.
    int state;
    clientid_t identity;
    std::chrono::milliseconds negotiatedTimeout;
    /// The smallest that was granted over this handle, also in connections that were lost before they were reported.
    std::chrono::milliseconds minTimeout;
    /// "address:port" of the server, where the state is connected.
    std::string server;
};

/// Takes what the client library reports. Called on the client library's threads, which keep the session alive:
/// implementations record and return, and must neither block nor throw. Late reports are told by their `generation`.
class ClientEvents
{
public:
    virtual void OnSessionEvent(std::uint64_t generation, const SessionEvent& event) noexcept = 0;
    virtual void OnNodeEvent(std::uint64_t generation, int type, int state, const char* path) noexcept = 0;
    /// A watch was armed for a request that nobody waits for any more.
    virtual void OnLateWatch(std::uint64_t generation, const std::string& path) noexcept = 0;
    /// A server has answered a request that was handed to the client library at `sent`. `agreed`: it was a write, and a
    /// majority of the servers has agreed on the answer.
    virtual void OnServerAnswer(std::uint64_t generation, BootClock::time_point sent, bool agreed) noexcept = 0;

protected:
    ~ClientEvents() = default;
};

/// One handle of the client library: the place where C becomes C++, and the only one that calls the network functions.
///
/// Requests are submitted under a shared lock that `Close` takes exclusively, since the client library frees a handle
/// under the feet of whoever is inside a call. Answers arrive on the library's threads; who waits for one does so with
/// a deadline of its own, because the library may never answer a request that races with the end of its session.
///
/// All watches have one function and one context, so that the library tells of a session event once.
///
/// Threads: any, except that the library's own threads must not call `Close`.
class ClientHandle
{
public:
    /// Starts to connect; `addresses` are numeric, "ip:port,ip:port". Does not block. Null with errno set when the
    /// client library could not make a handle. `credentials`, unless empty, are shown to servers under the scheme
    /// "digest" before anything is asked of them. `events` must outlive `Close`.
    static std::shared_ptr<ClientHandle> Open(const std::string& addresses, std::chrono::milliseconds sessionTimeout,
                                              const std::string& credentials, std::uint64_t generation,
                                              ClientEvents& events);

    ~ClientHandle();
    ClientHandle(const ClientHandle&) = delete;
    ClientHandle& operator=(const ClientHandle&) = delete;

    // Each submits one call and returns at once. After `ZOK` the request will be finished by the answer or by `Close`;
    // after any other code nothing was submitted. Strings and lists are copied before the return.

    int Create(const std::shared_ptr<Request>& request, const std::string& path, const std::string& data,
               const ACL_vector& acl, int flags);
    int GetChildren(const std::shared_ptr<Request>& request, const std::string& path);
    int GetData(const std::shared_ptr<Request>& request, const std::string& path);
    int Exists(const std::shared_ptr<Request>& request, const std::string& path);
    int WatchExists(const std::shared_ptr<Request>& request, const std::string& path);
    int Delete(const std::shared_ptr<Request>& request, const std::string& path);
    /// A read that finds nothing, and takes no permission. It asks for an access list, so that captures of the network
    /// and metrics of the servers tell it from the reads of the application.
    int ReadNothing(const std::shared_ptr<Request>& request);
    /// A write that changes nothing, and takes no permission: a majority of the servers has to agree on that, too.
    int WriteNothing(const std::shared_ptr<Request>& request);
    /// All or nothing. Nodes get `acl`. Paths must be valid: the client library would lose memory over one that is not.
    int Transact(const std::shared_ptr<Request>& request, const std::vector<Operation>& operations,
                 const ACL_vector& acl);
    /// Makes reads submitted later on this connection see all that was written before.
    int Sync(const std::shared_ptr<Request>& request, const std::string& path);

    /// Takes the watch on `path` out of the client library, without a word to the server, which keeps its own entry
    /// until it fires or the connection goes. Does not block.
    void ForgetWatch(const std::string& path);

    /// Ends the session when a server can be reached, and finishes every request that is under way with `rc`.
    ///
    /// Blocks for up to three seconds when a server hangs. Afterwards no report arrives. Idempotent; a second caller
    /// may return before the first is through.
    void Close(int rc);

private:
    enum class Kind
    {
        Read,
        Write,
    };
    /// What the client library gets as the context of a call.
    struct Call
    {
        ClientHandle* handle;
        /// In the order in which calls were made.
        std::uint64_t number;
        std::shared_ptr<Request> request;
        std::string watchedPath;
        Kind kind;
        /// When it was handed over.
        BootClock::time_point sent;
        /// Of a transaction. Stays where it is until the answer.
        TransactionOutcomes outcomes;
    };

    ClientHandle(std::uint64_t generation, std::string credentials, ClientEvents& events);

    template <typename Function>
    int Submit(Kind kind, const std::shared_ptr<Request>& request, Function&& function, std::string watchedPath = {},
               TransactionOutcomes outcomes = {});
    /// Takes a call over from the library.
    std::unique_ptr<Call> Take(const void* data);
    /// What the trampolines of all answers come to.
    static void OnAnswer(int rc, const void* data, const std::function<void(Request&)>& store);
    /// False when there is no connection any more over which to show them.
    bool ShowCredentials(zhandle_t* zh);

    /// The last thing that a callback does. While the handle is being closed, and after the `final` event, which has
    /// it closed, waits until `zookeeper_close` is past its first steps: a callback thread that is through with its
    /// work between two of them takes itself for the last user of the handle, and frees it under the closing thread.
    void LeaveCallback(bool final);

    static void OnWatch(zhandle_t* zh, int type, int state, const char* path, void* context) noexcept;
    static void OnString(int rc, const char* value, const void* data) noexcept;
    static void OnStrings(int rc, const String_vector* strings, const void* data) noexcept;
    static void OnStat(int rc, const Stat* stat, const void* data) noexcept;
    static void OnData(int rc, const char* value, int length, const Stat* stat, const void* data) noexcept;
    static void OnOutcomes(int rc, const void* data) noexcept;
    static void OnAcl(int rc, ACL_vector* acl, Stat* stat, const void* data) noexcept;
    static void OnVoid(int rc, const void* data) noexcept;

    const std::uint64_t generation_;
    const std::string credentials_;
    ClientEvents& events_;

    // Of the library's callback thread alone.

    bool credentialsShown_ = false;
    std::chrono::milliseconds minTimeout_ = std::chrono::milliseconds::max();
    /// Once `zookeeper_close` is past its first steps.
    bool mayLeave_ = false;

    /// Set before `Close` asks for the gate, so that a stream of submissions cannot keep it out.
    std::atomic<bool> closing_{false};
    /// Who is about to call, or is inside, `zookeeper_close`; 0 for nobody yet.
    std::atomic<pid_t> closingThread_{0};
    std::atomic<bool> closed_{false};
    SharedMutex gate_;
    zhandle_t* zh_ KX_GUARDED_BY(gate_) = nullptr;

    Mutex callsMutex_;
    std::uint64_t callsMade_ KX_GUARDED_BY(callsMutex_) = 0;
    /// Calls that the library has not answered, by number. It may never do so once a handle is closed, so they are
    /// owned here.
    std::map<std::uint64_t, std::unique_ptr<Call>> calls_ KX_GUARDED_BY(callsMutex_);
};

}  // namespace kx::velmor
