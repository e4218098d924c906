#include "link/channel.h"

#include "link/frame.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace tarvex::server {

namespace {

/// Room for the one descriptor that a message may bring.
struct alignas(cmsghdr) passed_room {
  std::array<char, CMSG_SPACE(sizeof(int))> bytes{};
};

descriptor take_passed(msghdr& message) {
  const cmsghdr* const header = CMSG_FIRSTHDR(&message);
  if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) return descriptor();
  int number = -1;
  std::memcpy(&number, CMSG_DATA(header), sizeof number);
  return descriptor(number);
}

}  // namespace

std::pair<descriptor, descriptor> link_pair() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) return {descriptor(), descriptor()};
  return {descriptor(ends[0]), descriptor(ends[1])};
}

int link_send(int end, std::string_view frame, int passed) {
  iovec piece = {const_cast<char*>(frame.data()), frame.size()};
  msghdr message = {};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  passed_room room;
  if (passed >= 0) {
    message.msg_control = room.bytes.data();
    message.msg_controllen = room.bytes.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof passed);
    std::memcpy(CMSG_DATA(header), &passed, sizeof passed);
  }
  ssize_t sent = -1;
  do {
    sent = sendmsg(end, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  return sent < 0 ? errno : 0;
}

link_received link_receive(int end) {
  link_received got;
  got.frame.resize(LINK_FRAME_MAX);
  iovec piece = {got.frame.data(), got.frame.size()};
  passed_room room;
  msghdr message = {};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = room.bytes.data();
  message.msg_controllen = room.bytes.size();
  ssize_t count = -1;
  do {
    count = recvmsg(end, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  } while (count < 0 && errno == EINTR);
  if (count < 0) got.error = errno;
  if (count == 0) got.error = ECONNRESET;
  if (count <= 0) return got;
  got.passed = take_passed(message);
  if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) got.error = EMSGSIZE;
  got.frame.resize(static_cast<std::size_t>(count));
  return got;
}

}  // namespace tarvex::server
