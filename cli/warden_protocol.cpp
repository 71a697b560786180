#include "cli/warden_protocol.h"

#include "cli/owned_descriptor.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace kx::velmor::cli {

using nlohmann::json;

namespace {

using Bytes = std::vector<std::uint8_t>;

/// Well below what a socket's buffer holds by default.
constexpr std::size_t kLargestPacket = 32'768;

constexpr std::chrono::milliseconds kLongestJam{1'000};

json JsonOf(const Launch& launch)
{
    return {{"kind", launch.kind},
            {"name", launch.name},
            {"command", launch.command},
            {"environment", launch.environment},
            {"hidden", launch.hidden},
            {"grace", launch.grace.count()},
            {"hearsRoles", launch.hearsRoles},
            {"lineWhenLeaseRunsOut", launch.lineWhenLeaseRunsOut},
            {"roleFile", launch.roleFile}};
}

Launch LaunchOf(const json& value)
{
    Launch launch;
    value.at("kind").get_to(launch.kind);
    value.at("name").get_to(launch.name);
    value.at("command").get_to(launch.command);
    value.at("environment").get_to(launch.environment);
    value.at("hidden").get_to(launch.hidden);
    launch.grace = std::chrono::milliseconds(value.at("grace").get<std::int64_t>());
    value.at("hearsRoles").get_to(launch.hearsRoles);
    value.at("lineWhenLeaseRunsOut").get_to(launch.lineWhenLeaseRunsOut);
    value.at("roleFile").get_to(launch.roleFile);
    return launch;
}

Bytes NullBytes()
{
    return json::to_cbor(json());
}

/// Room for one descriptor beside a packet.
union Ancillary {
    cmsghdr header;
    std::array<char, CMSG_SPACE(sizeof(int))> bytes;
};

int SendPacket(int socket, const Bytes& bytes, int descriptor) noexcept
{
    iovec part{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
    msghdr packet{};
    packet.msg_iov = &part;
    packet.msg_iovlen = 1;
    Ancillary ancillary{};
    if (descriptor >= 0)
    {
        packet.msg_control = ancillary.bytes.data();
        packet.msg_controllen = ancillary.bytes.size();
        cmsghdr* const header = CMSG_FIRSTHDR(&packet);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
    }
    ssize_t sent = 0;
    do
    {
        sent = ::sendmsg(socket, &packet, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    return sent < 0 ? -1 : 0;
}

void SendInTime(int socket, const Bytes& bytes, int descriptor)
{
    while (SendPacket(socket, bytes, descriptor) != 0)
    {
        pollfd awaited{socket, POLLOUT, 0};
        // Room that is there again means another go; so does a signal.
        const bool full = errno == EAGAIN;
        const int count = full ? ::poll(&awaited, 1, static_cast<int>(kLongestJam.count())) : 0;
        if (!full || count == 0 || (count < 0 && errno != EINTR))
        {
            throw std::system_error(full ? EAGAIN : errno, std::generic_category(), "send");
        }
    }
}

OwnedDescriptor FileInMemory(const Bytes& bytes)
{
    OwnedDescriptor file(Checked(::memfd_create("velmor-message", MFD_CLOEXEC), "memfd_create"));
    std::size_t written = 0;
    while (written < bytes.size())
    {
        const ssize_t count = ::write(file.Get(), bytes.data() + written, bytes.size() - written);
        if (count >= 0)
        {
            written += static_cast<std::size_t>(count);
        }
        else if (errno != EINTR)
        {
            throw std::system_error(errno, std::generic_category(), "write to memory");
        }
    }
    return file;
}

Bytes ReadFileInMemory(const OwnedDescriptor& file)
{
    struct stat status = {};
    Checked(::fstat(file.Get(), &status), "fstat");
    Bytes bytes(static_cast<std::size_t>(status.st_size));
    std::size_t position = 0;
    while (position < bytes.size())
    {
        const ssize_t count =
            ::pread(file.Get(), bytes.data() + position, bytes.size() - position, static_cast<off_t>(position));
        if (count > 0)
        {
            position += static_cast<std::size_t>(count);
        }
        else if (count == 0 || errno != EINTR)
        {
            throw std::system_error(count == 0 ? EIO : errno, std::generic_category(), "read from memory");
        }
    }
    return bytes;
}

OwnedDescriptor DescriptorIn(msghdr& packet)
{
    const cmsghdr* const header = CMSG_FIRSTHDR(&packet);
    if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
    {
        return OwnedDescriptor();
    }
    int number = -1;
    std::memcpy(&number, CMSG_DATA(header), sizeof(int));
    return OwnedDescriptor(number);
}

}  // namespace

void to_json(json& value, const Order& order)
{
    value = {{"what", order.what},
             {"signal", order.signal},
             {"wholeGroup", order.wholeGroup},
             {"grace", order.grace.count()},
             {"line", order.line}};
    if (order.what == Order::What::Start)
    {
        value["launch"] = JsonOf(order.launch);
    }
}

void from_json(const json& value, Order& order)
{
    value.at("what").get_to(order.what);
    if (order.what == Order::What::Start)
    {
        order.launch = LaunchOf(value.at("launch"));
    }
    value.at("signal").get_to(order.signal);
    value.at("wholeGroup").get_to(order.wholeGroup);
    order.grace = std::chrono::milliseconds(value.at("grace").get<std::int64_t>());
    value.at("line").get_to(order.line);
}

void to_json(json& value, const WardenReport& report)
{
    value = {{"what", report.what},
             {"kind", report.kind},
             {"name", report.name},
             {"pid", report.pid},
             {"waitStatus", report.waitStatus},
             {"leaseRanOut", report.leaseRanOut},
             {"code", report.code},
             {"error", report.error}};
}

void from_json(const json& value, WardenReport& report)
{
    value.at("what").get_to(report.what);
    value.at("kind").get_to(report.kind);
    value.at("name").get_to(report.name);
    value.at("pid").get_to(report.pid);
    value.at("waitStatus").get_to(report.waitStatus);
    value.at("leaseRanOut").get_to(report.leaseRanOut);
    value.at("code").get_to(report.code);
    value.at("error").get_to(report.error);
}

void SendMessage(int socket, const json& message)
{
    const Bytes bytes = json::to_cbor(message);
    if (bytes.size() <= kLargestPacket)
    {
        SendInTime(socket, bytes, -1);
        return;
    }
    const OwnedDescriptor file = FileInMemory(bytes);
    SendInTime(socket, NullBytes(), file.Get());
}

void SendNudge(int socket) noexcept
{
    static const Bytes nothing = NullBytes();
    SendPacket(socket, nothing, -1);
}

Received ReceiveMessage(int socket)
{
    Bytes bytes(kLargestPacket);
    iovec part{bytes.data(), bytes.size()};
    Ancillary ancillary{};
    msghdr packet{};
    packet.msg_iov = &part;
    packet.msg_iovlen = 1;
    packet.msg_control = ancillary.bytes.data();
    packet.msg_controllen = ancillary.bytes.size();
    const ssize_t size = ::recvmsg(socket, &packet, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (size < 0)
    {
        if (errno == EAGAIN || errno == EINTR)
        {
            return {};
        }
        if (errno == ECONNRESET)
        {
            return {true, std::nullopt};
        }
        throw std::system_error(errno, std::generic_category(), "recvmsg");
    }
    if (size == 0)
    {
        return {true, std::nullopt};
    }
    const OwnedDescriptor file = DescriptorIn(packet);
    if ((packet.msg_flags & MSG_CTRUNC) != 0)
    {
        throw std::system_error(EMFILE, std::generic_category(), "recvmsg");
    }
    bytes.resize(static_cast<std::size_t>(size));
    return {false, json::from_cbor(file ? ReadFileInMemory(file) : bytes)};
}

}  // namespace kx::velmor::cli
