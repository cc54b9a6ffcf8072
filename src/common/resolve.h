// Name resolution of platform and message-server addresses, through the
// system resolver only (getaddrinfo, reentrant: the session threads call
// these concurrently).
#pragma once

#include <netdb.h>

namespace qdq {
// Size of every address text slot these functions write, terminator
// included; AppGetIPFromDNS's `address` must hold this many bytes.
inline constexpr int kAddrTextSize = 64;
}  // namespace qdq

// Rewrites the IPv4 server text in `address` (kAddrTextSize bytes, the
// caller's) with its first address when it is a host name. 0 on success
// (the text is then a literal), -1 when the name does not resolve.
int AppGetIPFromDNS(char *address);

// Fills at most `capacity` slots of `list` with the addresses of `server`
// (iptype 2: IPv4, any other: IPv6), skipping IPv4 loopback answers, in the
// resolver's order. A literal of the device's family fills slot 0 alone.
// Returns the number of slots filled (0 = nothing usable).
int AppGetIPListFromDNS(const char *server, char (*list)[qdq::kAddrTextSize], int iptype, int capacity);

namespace qdq {
// The walk over a resolver answer behind AppGetIPListFromDNS: converts each
// entry of the wanted family into the next slot, bounded by capacity.
int fill_address_list(const struct addrinfo *answers, char (*list)[kAddrTextSize], int iptype, int capacity);
}  // namespace qdq
