// Socket set-up for the simulator: every socket is non-blocking and closed on exec.
#ifndef ZUNTA_MESHSIM_NET_H_
#define ZUNTA_MESHSIM_NET_H_

#include <cstdint>
#include <string>

#include <netinet/in.h>

#include "core/fd.h"

namespace meshsim {

// Fills addr from a dotted IPv4 text and a port; false when the text is not an address.
bool make_address(const std::string& ip, uint16_t port, sockaddr_in* addr);
// Only 127.0.0.0/8 is ever bound or answered to.
bool is_loopback(const sockaddr_in& addr);

// A listening TCP socket on ip:port; invalid with the reason in *error.
unique_fd tcp_listener(const std::string& ip, uint16_t port, std::string* error);
// A UDP socket bound to ip:port (ip may be 127.255.255.255 or any 127.x address).
unique_fd udp_bound(const std::string& ip, uint16_t port, std::string* error);
// An unbound UDP socket for answers whose source address is chosen per datagram.
unique_fd udp_sender(std::string* error);
// Sends one datagram from source_ip (a local address) to `to`; falls back to the system's choice
// of source when that is refused. Returns the send result.
long send_from(int fd, const std::string& source_ip, const sockaddr_in& to, const std::string& text);
// A listening Unix stream socket at path; a stale socket file there is replaced.
unique_fd unix_listener(const std::string& path, std::string* error);

std::string address_text(const sockaddr_in& addr);  // "ip:port"

}  // namespace meshsim

#endif  // ZUNTA_MESHSIM_NET_H_
