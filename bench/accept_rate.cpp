// Accepted connections per second: each client thread connects, sends one request, reads the whole
// reply (head and Content-Length body), closes, and starts over. Every reply costs the server one
// accept, so the rate of completed exchanges is its accept rate.
//
//   accept_rate <ipv4> <port> [threads=8] [seconds=10]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr char kRequest[] = "GET /bucket/object HTTP/1.1\r\nHost: bench\r\nUser-Agent: accept_rate\r\n\r\n";

std::atomic<bool> g_stop{false};
std::atomic<unsigned long> g_done{0};
std::atomic<unsigned long> g_failed{0};

// One exchange on a fresh connection; true when the whole reply arrived.
bool exchange(const sockaddr_in& addr)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return false;
    bool ok = false;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 &&
        send(fd, kRequest, sizeof kRequest - 1, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof kRequest - 1)) {
        std::string in;
        char buf[8192];
        std::size_t want = 0;
        for (;;) {
            ssize_t n = recv(fd, buf, sizeof buf, 0);
            if (n <= 0)
                break;
            in.append(buf, static_cast<std::size_t>(n));
            if (want == 0) {
                std::size_t end = in.find("\r\n\r\n");
                if (end == std::string::npos)
                    continue;
                std::size_t cl = in.find("Content-Length:");
                if (cl == std::string::npos || cl > end)
                    break;
                want = end + 4 + std::strtoul(in.c_str() + cl + 15, nullptr, 10);
            }
            if (in.size() >= want) {
                ok = true;
                break;
            }
        }
    }
    // An abortive close keeps the client's side from piling up TIME_WAIT sockets and running out of
    // local ports; the server's accept has happened either way.
    struct linger lg = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    close(fd);
    return ok;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s <ipv4> <port> [threads] [seconds]\n", argv[0]);
        return 2;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(std::atoi(argv[2])));
    if (inet_pton(AF_INET, argv[1], &addr.sin_addr) != 1) {
        std::fprintf(stderr, "bad address %s\n", argv[1]);
        return 2;
    }
    int threads = argc > 3 ? std::atoi(argv[3]) : 8;
    int seconds = argc > 4 ? std::atoi(argv[4]) : 10;

    std::vector<std::thread> pool;
    for (int i = 0; i < threads; i++)
        pool.emplace_back([&addr] {
            while (!g_stop.load(std::memory_order_relaxed)) {
                if (exchange(addr))
                    g_done.fetch_add(1, std::memory_order_relaxed);
                else
                    g_failed.fetch_add(1, std::memory_order_relaxed);
            }
        });
    auto t0 = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    g_stop = true;
    for (auto& t : pool)
        t.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::printf("threads=%d seconds=%.2f exchanges=%lu failed=%lu rate=%.0f/s\n", threads, secs, g_done.load(),
                g_failed.load(), static_cast<double>(g_done.load()) / secs);
    return g_failed.load() == 0 ? 0 : 1;
}
