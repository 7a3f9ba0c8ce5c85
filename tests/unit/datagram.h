/// Route netlink datagrams by hand: bytes put together from messages, family headers and
/// attributes, whose length fields can be made to lie.

#pragma once

#include <arpa/inet.h>
#include <array>
#include <cstdint>
#include <cstring>
#include <linux/rtnetlink.h>
#include <optional>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

inline Bytes operator+(Bytes left, const Bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

template <typename T>
Bytes bytesOf(const T &value)
{
    Bytes bytes(sizeof value);
    memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

inline Bytes padded(Bytes bytes)
{
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return bytes;
}

/// The bytes of an IPv4 or IPv6 address.
inline Bytes address(const std::string &text)
{
    const bool ipv6 = text.find(':') != std::string::npos;
    Bytes bytes(ipv6 ? 16 : 4);
    if (inet_pton(ipv6 ? AF_INET6 : AF_INET, text.c_str(), bytes.data()) != 1)
        bytes.clear();
    return bytes;
}

/// An attribute, padded; `length` is what it says of itself where that is not the truth.
inline Bytes attribute(unsigned type, const Bytes &data, std::optional<unsigned> length = {})
{
    const rtattr header = {
        static_cast<uint16_t>(length.value_or(static_cast<unsigned>(sizeof header + data.size()))),
        static_cast<uint16_t>(type)};
    return padded(bytesOf(header) + data);
}

inline Bytes attribute(unsigned type, uint32_t value)
{
    return attribute(type, bytesOf(value));
}

/// A message, padded; `length` is what it says of itself where that is not the truth.
inline Bytes message(unsigned type, const Bytes &payload, std::optional<size_t> length = {})
{
    nlmsghdr header = {};
    header.nlmsg_len = static_cast<uint32_t>(length.value_or(sizeof header + payload.size()));
    header.nlmsg_type = static_cast<uint16_t>(type);
    return padded(bytesOf(header) + payload);
}

struct AddressHeader {
    uint32_t ifindex = 3;
    uint8_t family = AF_INET6;
    uint8_t prefixlen = 64;
    uint8_t scope = RT_SCOPE_UNIVERSE;

    operator Bytes() const { return bytesOf(ifaddrmsg{family, prefixlen, 0, scope, ifindex}); }
};

struct RouteHeader {
    uint8_t family = AF_INET6;
    uint8_t dst_len = 0;
    uint8_t table = RT_TABLE_MAIN;
    uint8_t type = RTN_UNICAST;

    operator Bytes() const
    {
        return bytesOf(rtmsg{family, dst_len, 0, 0, table, RTPROT_KERNEL, 0, type, 0});
    }
};

inline Bytes linkHeader(int ifindex)
{
    return bytesOf(ifinfomsg{AF_UNSPEC, 0, 0, ifindex, 0, 0});
}
