// An empty C++ program of the daemon's shape: three sockets, a thread that waits for a pipe, a loop that waits, answers
// and sleeps 1 ms. What the daemon needs beyond it is the daemon's own.

#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

namespace {

int Open(int port) {
  const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in any = {};
  any.sin_family = AF_INET;
  any.sin_port = htons(static_cast<std::uint16_t>(port));
  const bool isBound = bind(descriptor, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0;
  return isBound ? descriptor : -1;
}

}  // namespace

int main(int argc, char** argv) {
  int ends[2];
  if (pipe(ends) != 0) return 1;
  std::thread([input = ends[0]] {
    for (pollfd wait = {input, POLLIN, 0};;) poll(&wait, 1, 5000);
  }).detach();

  const std::string answer(argc > 1 ? argv[1] : "SID:0\r\n");
  const std::vector<int> descriptors = {Open(5564), Open(5563), Open(5562)};
  for (;;) {
    fd_set ready;
    FD_ZERO(&ready);
    for (const int descriptor : descriptors) FD_SET(descriptor, &ready);
    timeval limit = {1, 0};
    if (select(1024, &ready, nullptr, nullptr, &limit) > 0) {
      for (const int descriptor : descriptors) {
        if (!FD_ISSET(descriptor, &ready)) continue;
        char request[1024];
        sockaddr_in sender = {};
        socklen_t length = sizeof sender;
        const ssize_t size =
            recvfrom(descriptor, request, sizeof request, 0, reinterpret_cast<sockaddr*>(&sender), &length);
        if (size <= 0) continue;
        sendto(descriptor, answer.data(), answer.size(), 0, reinterpret_cast<const sockaddr*>(&sender), length);
      }
    }
    usleep(1000);
  }
}
