// Socket helpers of the simulator.
#include "meshsim/net.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace meshsim {
namespace {

constexpr int LISTEN_BACKLOG = 128;  // a burst of connections from the coordinator

unique_fd failed(std::string* error, const std::string& what) {
  *error = what + ": " + std::strerror(errno);
  return unique_fd();
}

}  // namespace

bool make_address(const std::string& ip, uint16_t port, sockaddr_in* addr) {
  std::memset(addr, 0, sizeof *addr);
  addr->sin_family = AF_INET;
  addr->sin_port = htons(port);
  return inet_pton(AF_INET, ip.c_str(), &addr->sin_addr) == 1;
}

bool is_loopback(const sockaddr_in& addr) {
  return (ntohl(addr.sin_addr.s_addr) >> 24) == 127;
}

namespace {

// A socket of `type` bound to a loopback address; anything else is refused before any socket exists.
unique_fd bound_socket(int type, const std::string& ip, uint16_t port, std::string* error) {
  sockaddr_in addr;
  if (!make_address(ip, port, &addr) || !is_loopback(addr)) {
    *error = "not a loopback address: " + ip;
    return unique_fd();
  }
  unique_fd fd(socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return failed(error, "socket");
  int one = 1;
  setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    return failed(error, "bind " + ip + ":" + std::to_string(port));
  }
  return fd;
}

}  // namespace

unique_fd tcp_listener(const std::string& ip, uint16_t port, std::string* error) {
  unique_fd fd = bound_socket(SOCK_STREAM, ip, port, error);
  if (fd.valid() && listen(fd.get(), LISTEN_BACKLOG) != 0) return failed(error, "listen " + ip);
  return fd;
}

unique_fd udp_bound(const std::string& ip, uint16_t port, std::string* error) {
  return bound_socket(SOCK_DGRAM, ip, port, error);
}

unique_fd udp_sender(std::string* error) {
  unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return failed(error, "socket");
  return fd;
}

long send_from(int fd, const std::string& source_ip, const sockaddr_in& to, const std::string& text) {
  iovec iov{const_cast<char*>(text.data()), text.size()};
  msghdr msg{};
  msg.msg_name = const_cast<sockaddr_in*>(&to);
  msg.msg_namelen = sizeof to;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
  in_pktinfo info{};
  if (inet_pton(AF_INET, source_ip.c_str(), &info.ipi_spec_dst) == 1) {
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = IPPROTO_IP;
    c->cmsg_type = IP_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof info);
    std::memcpy(CMSG_DATA(c), &info, sizeof info);
  }
  long sent = sendmsg(fd, &msg, MSG_NOSIGNAL);
  if (sent < 0 && errno == EINVAL && msg.msg_control != nullptr) {
    msg.msg_control = nullptr;
    msg.msg_controllen = 0;
    sent = sendmsg(fd, &msg, MSG_NOSIGNAL);
  }
  return sent;
}

unique_fd unix_listener(const std::string& path, std::string* error) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) {
    *error = "control socket path is empty or too long";
    return unique_fd();
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  struct stat st;
  if (lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) unlink(path.c_str());
  unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return failed(error, "socket");
  if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
    return failed(error, "bind " + path);
  if (listen(fd.get(), 8) != 0) return failed(error, "listen " + path);
  return fd;
}

std::string address_text(const sockaddr_in& addr) {
  char ip[INET_ADDRSTRLEN] = "?";
  inet_ntop(AF_INET, &addr.sin_addr, ip, sizeof ip);
  return std::string(ip) + ":" + std::to_string(ntohs(addr.sin_port));
}

}  // namespace meshsim
