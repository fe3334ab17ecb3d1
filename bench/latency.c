/* The lanes of the latency bench and who measures them, in C, so that what stands beside the daemon costs next to
   nothing.

   latency echo PORT                    answers each datagram with itself: the limit
   latency posts PORT SERVICE-PORT      the daemon's loop, with two HTTP posts to the service before each answer
   latency interface PORT INTERFACE     the same loop, with the interface and the routing table read instead
   latency upkeep PORT INTERFACE        the same loop, never asked, with what the daemon does every 5 s in it
   latency service PORT                 answers HTTP posts with what the daemon wants to hear
   latency ask ADDRESS PORT COUNT PACE-US [HEX [INTERFACE-ADDRESS]]
                                        sends COUNT requests, one each PACE-US; prints the ns to each answer, or -1
   latency saturate ADDRESS PORT SECONDS WINDOW
                                        keeps WINDOW requests under way; prints the answers per second
   latency first PORT WORD...           starts a program; prints the ns until it answers on 127.0.0.1, then ends it
   latency run WORD...                  runs a program; prints the ns until its end */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static const char REQUEST[] = "DEVICEIDENT?\r\n";
static const char RECORD[] =
    "SID:0\tOAN:Tessel XT\tOVN:Orvalle Labs\tSAN:Tessel XT\tSVN:Orvalle Labs\tLOC:Bench 1\tMKC:XT175012#\tSNR:314159\t"
    "ASK:false\tIPA:192.168.1.10\tSNM:255.255.255.0\tGWA:192.168.1.1\tMAA:00:1b:c4:0a:ff:05\tEXTSID:0\t"
    "EXTAPPVER:4.2.1\r\n";

static int require(int result, const char* what) {
  if (result >= 0) return result;
  perror(what);
  exit(1);
}

static struct sockaddr_in address_of(const char* text, int port) {
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((unsigned short)port)};
  inet_pton(AF_INET, text, &address.sin_addr);
  return address;
}

static int bound_udp(int port) {
  int fd = require(socket(AF_INET, SOCK_DGRAM, 0), "socket");
  struct sockaddr_in any = address_of("0.0.0.0", port);
  require(bind(fd, (struct sockaddr*)&any, sizeof any), "bind");
  return fd;
}

static int connected_tcp(int port) {
  int fd = require(socket(AF_INET, SOCK_STREAM, 0), "socket"), on = 1;
  struct sockaddr_in peer = address_of("127.0.0.1", port);
  require(connect(fd, (struct sockaddr*)&peer, sizeof peer), "connect");
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

/* ---- the service ---- */

#define HEAD "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-length: %zu\r\n\r\n"
#define STRING(name, text) "<member><name>" name "</name><value><string>" text "</string></value></member>"
#define INT(name, text) "<member><name>" name "</name><value><i4>" text "</i4></value></member>"
#define ANSWER(members)                                                           \
  "<?xml version=\"1.0\"?><methodResponse><params><param><value><struct>" members \
  "</struct></value></param></params></methodResponse>"

static const char INFOS[] =
    ANSWER(STRING("MethodID", "RPCMeas.GetGlobalSysInfos") STRING("DeviceType", "Tessel XT")
               STRING("DeviceName", "Bench 1") STRING("TypeCode", "XT175") INT("MainModuleType", "175")
                   INT("SubModuleType", "12") INT("FunctionModuleType", "3") INT("CasingModuleType", "1")
                       STRING("SerialNumber", "314159") STRING("Firmware", "4.2.1"));
static const char NETWORK[] = ANSWER(STRING("MethodID", "RPCConf.GetNetwork") STRING("IPAddress", "192.168.1.10")
                                         STRING("SubnetMask", "255.255.255.0") STRING("GatewayAddress", "192.168.1.1")
                                             INT("DHCPActive", "0") STRING("MACAddress", "00:1b:c4:0a:ff:05"));

/* Requests come one at a time and in one piece each, as the lanes send them. */
static void serve(int port) {
  int listener = require(socket(AF_INET, SOCK_STREAM, 0), "socket"), on = 1;
  struct sockaddr_in here = address_of("127.0.0.1", port);
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  require(bind(listener, (struct sockaddr*)&here, sizeof here), "bind");
  require(listen(listener, 8), "listen");
  struct pollfd wait[16] = {{listener, POLLIN, 0}};
  nfds_t count = 1;
  for (;;) {
    require(poll(wait, count, -1), "poll");
    if ((wait[0].revents & POLLIN) != 0 && count < 16) {
      int fd = require(accept(listener, NULL, NULL), "accept");
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      wait[count++] = (struct pollfd){fd, POLLIN, 0};
    }
    for (nfds_t i = 1; i < count; ++i) {
      char request[8193], answer[4096];
      if (wait[i].revents == 0) continue;
      ssize_t size = recv(wait[i].fd, request, sizeof request - 1, 0);
      if (size <= 0) {
        close(wait[i].fd);
        wait[i--] = wait[--count];
        continue;
      }
      request[size] = '\0';
      const char* body = strstr(request, "GetNetwork") != NULL ? NETWORK : INFOS;
      int length = snprintf(answer, sizeof answer, HEAD "%s", strlen(body), body);
      require((int)send(wait[i].fd, answer, (size_t)length, 0), "send");
    }
  }
}

/* ---- the lanes ---- */

static void post(int fd, const char* method) {
  char request[2048], answer[8193], body[1024];
  int length = snprintf(body, sizeof body,
                        "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n<methodCall><methodName>%s</methodName>\r\n"
                        "<params><param><value><struct><member><name>MethodID</name><value>%s</value></member></struct>"
                        "</value></param></params></methodCall>\r\n",
                        method, method);
  int size = snprintf(request, sizeof request, "POST /RPC2 HTTP/1.1\r\nContent-length: %d\r\n\r\n%s", length, body);
  require((int)send(fd, request, (size_t)size, 0), "send");
  for (size_t have = 0;;) {
    ssize_t more = recv(fd, answer + have, sizeof answer - 1 - have, 0);
    if (more <= 0) exit(1);
    answer[have += (size_t)more] = '\0';
    const char* field = strstr(answer, "Content-length: ");
    const char* end = strstr(answer, "\r\n\r\n");
    if (field && end && answer + have - (end + 4) >= strtol(field + 16, NULL, 10)) return;
  }
}

static void read_interface(const char* interface) {
  const unsigned long wanted[] = {SIOCGIFBRDADDR, SIOCGIFHWADDR, SIOCGIFADDR, SIOCGIFNETMASK};
  int fd = require(socket(AF_INET, SOCK_DGRAM, 0), "socket");
  for (size_t i = 0; i < 4; ++i) {
    struct ifreq request = {0};
    strncpy(request.ifr_name, interface, IFNAMSIZ - 1);
    ioctl(fd, wanted[i], &request);
  }
  close(fd);
  fd = require(socket(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE), "netlink");
  struct {
    struct nlmsghdr header;
    struct rtmsg message;
  } dump = {.header = {sizeof dump, RTM_GETROUTE, NLM_F_REQUEST | NLM_F_DUMP, 0, 0}};
  send(fd, &dump, sizeof dump, 0);
  char buffer[8192];
  for (;;) {
    ssize_t size = recv(fd, buffer, sizeof buffer, 0);
    struct nlmsghdr* header = (struct nlmsghdr*)buffer;
    if (size < (ssize_t)sizeof *header || header->nlmsg_type == NLMSG_DONE) break;
  }
  close(fd);
}

/* A service that refuses, by a time-out. */
static void try_service(void) {
  struct sockaddr_in peer = address_of("127.0.0.1", 1200);
  int fd = require(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0), "socket"), error = 0;
  socklen_t length = sizeof error;
  connect(fd, (struct sockaddr*)&peer, sizeof peer);
  fd_set ready;
  struct timeval limit = {0, 500000};
  FD_ZERO(&ready);
  FD_SET(fd, &ready);
  select(fd + 1, NULL, &ready, NULL, &limit);
  getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
  close(fd);
}

static void read_file(const char* path) {
  char piece[4096];
  int fd = require(open(path, O_RDONLY), path);
  while (read(fd, piece, sizeof piece) > 0) {
  }
  close(fd);
}

/* Twice the service, both group lists, the multicast route. */
static void keep_up(const char* interface) {
  try_service();
  try_service();
  read_file("/proc/net/igmp");
  read_file("/proc/net/igmp6");
  struct sockaddr_in group = address_of("224.0.0.0", 0), none = {.sin_family = AF_INET};
  struct rtentry route = {.rt_flags = RTF_UP, .rt_dev = (char*)interface};
  memcpy(&route.rt_dst, &group, sizeof group);
  memcpy(&route.rt_genmask, &group, sizeof group);
  memcpy(&route.rt_gateway, &none, sizeof none);
  int fd = require(socket(AF_INET, SOCK_DGRAM, 0), "socket");
  ioctl(fd, SIOCADDRT, &route);
  close(fd);
}

static void loop(int port, int service, const char* interface, int upkeep) {
  int fd = bound_udp(port);
  for (unsigned turn = 1;; ++turn) {
    if (upkeep && turn % 5 == 0) keep_up(interface);
    fd_set ready;
    struct timeval limit = {1, 0};
    FD_ZERO(&ready);
    FD_SET(fd, &ready);
    if (select(fd + 1, &ready, NULL, NULL, &limit) == 1) {
      char request[1024];
      struct sockaddr_in sender;
      socklen_t length = sizeof sender;
      if (recvfrom(fd, request, sizeof request, 0, (struct sockaddr*)&sender, &length) > 0) {
        if (service >= 0) {
          post(service, "RPCMeas.GetGlobalSysInfos");
          post(service, "RPCConf.GetNetwork");
        }
        if (interface != NULL) read_interface(interface);
        sendto(fd, RECORD, sizeof RECORD - 1, 0, (struct sockaddr*)&sender, length);
      }
    }
    usleep(1000);
  }
}

static void echo(int port) {
  int fd = bound_udp(port);
  for (;;) {
    char request[1024];
    struct sockaddr_in sender;
    socklen_t length = sizeof sender;
    ssize_t size = recvfrom(fd, request, sizeof request, 0, (struct sockaddr*)&sender, &length);
    if (size > 0) sendto(fd, request, (size_t)size, 0, (struct sockaddr*)&sender, length);
  }
}

/* ---- who measures ---- */

static long long now_ns(void) {
  struct timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * 1000000000LL + time.tv_nsec;
}

static void sleep_until(long long when) {
  struct timespec time = {when / 1000000000, when % 1000000000};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, NULL) == EINTR) {
  }
}

static int asking_socket(const char* interface_address) {
  int fd = require(socket(AF_INET, SOCK_DGRAM, 0), "socket");
  struct timeval limit = {1, 0};
  require(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), "SO_RCVTIMEO");
  if (interface_address != NULL) {
    struct in_addr via;
    inet_pton(AF_INET, interface_address, &via);
    require(setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &via, sizeof via), "IP_MULTICAST_IF");
  }
  return fd;
}

static size_t from_hex(const char* hex, char* bytes, size_t room) {
  size_t size = 0;
  for (; hex[0] != '\0' && hex[1] != '\0' && size < room; hex += 2) {
    const char digits[3] = {hex[0], hex[1], '\0'};
    bytes[size++] = (char)strtol(digits, NULL, 16);
  }
  return size;
}

static void ask(const char* address, int port, int count, long long pace_us, const char* hex, const char* via) {
  char request[512], answer[2048];
  size_t size = sizeof REQUEST - 1;
  memcpy(request, REQUEST, size);
  if (hex != NULL) size = from_hex(hex, request, sizeof request);
  int fd = asking_socket(via);
  struct sockaddr_in peer = address_of(address, port);
  long long next = now_ns();
  for (int i = 0; i < count; ++i, next += pace_us * 1000) {
    sleep_until(next);
    while (recv(fd, answer, sizeof answer, MSG_DONTWAIT) > 0) {
    }
    long long begin = now_ns();
    require((int)sendto(fd, request, size, 0, (struct sockaddr*)&peer, sizeof peer), "sendto");
    ssize_t got = recv(fd, answer, sizeof answer, 0);
    printf("%lld\n", got > 0 ? now_ns() - begin : -1);
  }
}

static void saturate(const char* address, int port, double seconds, int window) {
  char answer[2048];
  int fd = asking_socket(NULL);
  struct sockaddr_in peer = address_of(address, port);
  require(connect(fd, (struct sockaddr*)&peer, sizeof peer), "connect");
  for (int i = 0; i < window; ++i) send(fd, REQUEST, sizeof REQUEST - 1, 0);
  long long answers = 0, begin = now_ns(), end = begin + (long long)(seconds * 1e9);
  while (now_ns() < end) {
    if (recv(fd, answer, sizeof answer, 0) > 0) ++answers;
    send(fd, REQUEST, sizeof REQUEST - 1, 0);
  }
  printf("%.1f\n", (double)answers * 1e9 / (double)(now_ns() - begin));
}

/* Starts a program, its output dropped. */
static pid_t start(char** words) {
  pid_t child = require(fork(), "fork");
  if (child != 0) return child;
  int null = open("/dev/null", O_WRONLY);
  dup2(null, STDOUT_FILENO);
  dup2(null, STDERR_FILENO);
  execvp(words[0], words);
  _exit(127);
}

static void first(int port, char** words) {
  int fd = require(socket(AF_INET, SOCK_DGRAM, 0), "socket");
  struct timespec limit = {0, 200000};
  struct pollfd wait = {fd, POLLIN, 0};
  struct sockaddr_in peer = address_of("127.0.0.1", port);
  char answer[2048];
  long long begin = now_ns();
  pid_t child = start(words);
  do {
    sendto(fd, REQUEST, sizeof REQUEST - 1, 0, (struct sockaddr*)&peer, sizeof peer);
    ppoll(&wait, 1, &limit, NULL);
  } while (recv(fd, answer, sizeof answer, MSG_DONTWAIT) <= 0 && now_ns() - begin < 10000000000LL);
  printf("%lld\n", now_ns() - begin);
  kill(child, SIGKILL);
  waitpid(child, NULL, 0);
}

static void run(char** words) {
  long long begin = now_ns();
  waitpid(start(words), NULL, 0);
  printf("%lld\n", now_ns() - begin);
}

int main(int argc, char** argv) {
  const char* what = argc > 1 ? argv[1] : "";
  setvbuf(stdout, NULL, _IOFBF, 1 << 16);
  if (argc == 3 && strcmp(what, "echo") == 0) echo(atoi(argv[2]));
  if (argc == 4 && strcmp(what, "posts") == 0) loop(atoi(argv[2]), connected_tcp(atoi(argv[3])), NULL, 0);
  if (argc == 4 && strcmp(what, "interface") == 0) loop(atoi(argv[2]), -1, argv[3], 0);
  if (argc == 4 && strcmp(what, "upkeep") == 0) loop(atoi(argv[2]), -1, argv[3], 1);
  if (argc == 3 && strcmp(what, "service") == 0) serve(atoi(argv[2]));
  if (argc >= 6 && strcmp(what, "ask") == 0) {
    ask(argv[2], atoi(argv[3]), atoi(argv[4]), atoll(argv[5]), argc > 6 ? argv[6] : NULL, argc > 7 ? argv[7] : NULL);
    return 0;
  }
  if (argc == 6 && strcmp(what, "saturate") == 0) {
    saturate(argv[2], atoi(argv[3]), atof(argv[4]), atoi(argv[5]));
    return 0;
  }
  if (argc >= 4 && strcmp(what, "first") == 0) {
    first(atoi(argv[2]), argv + 3);
    return 0;
  }
  if (argc >= 3 && strcmp(what, "run") == 0) {
    run(argv + 2);
    return 0;
  }
  fprintf(stderr, "latency: see the head of bench/latency.c\n");
  return 2;
}
