// IPv4 addresses with ports.
#pragma once

#include <cstdint>
#include <netinet/in.h>

// An IPv4 address, 32 bits in network byte order.
typedef uint32_t LIPAddress;
// "No address": all ones.
constexpr LIPAddress LIPADDRESS_NONE = 0xFFFFFFFF;

// The system's IPv4 socket address (sockaddr_in), ready for connect and bind.
struct LIPAddressWithPort : sockaddr_in {
    // No address, port 0.
    LIPAddressWithPort();
    // address in network byte order, port in host byte order.
    LIPAddressWithPort(LIPAddress address, unsigned short port);

    LIPAddress GetAddress() const { return sin_addr.s_addr; }
    // Host byte order.
    unsigned short GetPort() const { return ntohs(sin_port); }
};

// Several addresses of one host, with one port.
struct LIPAddressMultiHomedWithPort {
    static constexpr unsigned int kMaxAddresses = 16;

    LIPAddressMultiHomedWithPort() = default;
    explicit LIPAddressMultiHomedWithPort(unsigned short port) : wPort(port) {}

    // Appends an address (network byte order); false when the list is full.
    bool AddAddress(LIPAddress address);
    // The address at index with the common port; an index past the count gives no address.
    LIPAddressWithPort GetHost(unsigned int index) const;

    unsigned short wPort = 0;    // host byte order
    unsigned int nAddresses = 0; // addresses in use
    LIPAddress Addresses[kMaxAddresses] = {};
};
