#include "tests/support/expire_session.h"

#include "tests/support/raw_client.h"

namespace kx::velmor::testing_support {

namespace {

/// Keeps the session's owner away for as long as it lives.
class Isolation
{
public:
    explicit Isolation(const std::vector<Proxy*>& proxies) : proxies_(proxies)
    {
        for (Proxy* const proxy : proxies_)
        {
            proxy->Refuse();
            proxy->Cut();
        }
    }

    ~Isolation()
    {
        for (Proxy* const proxy : proxies_)
        {
            proxy->Accept();
        }
    }

    Isolation(const Isolation&) = delete;
    Isolation& operator=(const Isolation&) = delete;

private:
    const std::vector<Proxy*>& proxies_;
};

}  // namespace

void ExpireSession(const std::vector<Proxy*>& proxies, const std::string& servers, const clientid_t& session)
{
    const Isolation isolation(proxies);
    // A connection that the owner had begun before it was cut off may still reach the server and take the session back;
    // what counts is the servers' word that the session is over.
    while (CloseSession(servers, session))
    {}
}

void ExpireSession(Proxy& proxy, const std::string& server, const clientid_t& session)
{
    ExpireSession(std::vector<Proxy*>{&proxy}, server, session);
}

}  // namespace kx::velmor::testing_support
