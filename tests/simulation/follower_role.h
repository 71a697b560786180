#pragma once

#include "tests/simulation/client_service.h"
#include "tests/simulation/server_role.h"

#include <functional>
#include <map>
#include <optional>

namespace kx::velmor::simulation {

/// A server that follows the ensemble's leader.
///
/// It notes which sessions were touched, and hands that to the leader with its answer to the leader's next ping. What
/// it has not handed over when it fails is lost.
class FollowerRole final : public ServerRole
{
public:
    /// `onLost` is called when the leader is lost, as the last thing.
    FollowerRole(ServerWorld& world, Disk& disk, ClientService& clients, std::function<void()> onLost);
    ~FollowerRole() override;

    void Start(const ServerLinkPtr& link);
    void OnMessage(ServerLink& link, ServerMessage message);
    bool Synchronised() const { return serving_; }

    bool Touch(SessionId session, std::chrono::milliseconds timeout) override;
    void CreateSession(SessionId session, std::chrono::milliseconds timeout) override;
    void Revalidate(SessionId session, std::chrono::milliseconds timeout) override;
    void Submit(SessionId session, const ClientRequestPtr& request) override;
    void Sync(SessionId session, const ClientRequestPtr& request) override;
    void Freeze() override;
    void Thaw() override;
    void Retire() override;

private:
    void TakeOver(const ServerMessage& snapshot);
    void Commit(TransactionNumber number);
    void AnswerPing();
    void SendUp(ServerMessage::Kind kind, SessionId session, const ClientRequestPtr& request,
                std::chrono::milliseconds timeout);
    void ListenUntil(Time when);

    ServerWorld& world_;
    Disk& disk_;
    ClientService& clients_;
    const std::function<void()> onLost_;
    ServerLinkPtr link_;
    std::map<SessionId, std::chrono::milliseconds> touches_;
    /// How long it goes without a word from the leader, and since when there has been none.
    Time patience_{0};
    Time heard_{0};
    std::optional<EventId> silence_;
    bool serving_ = false;
    bool frozen_ = false;
};

}  // namespace kx::velmor::simulation
