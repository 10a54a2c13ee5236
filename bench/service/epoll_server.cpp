// What the kernel costs by itself: the same job on epoll, one write per client for all records of one read.
//   epoll_server DEVICE
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace
{

void s_watch(int poll, int descriptor)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    epoll_ctl(poll, EPOLL_CTL_ADD, descriptor, &event);
}

int s_listen()
{
    const int server = socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(server, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(10443);
    if (bind(server, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(server, 64) != 0) {
        std::exit(1);
    }
    return server;
}

// The messages of one read: a WebSocket frame of up to 125 bytes each.
std::string s_frames(const std::string &message, int count)
{
    std::string frames;
    for (int i = 0; i < count; ++i) {
        frames += '\x82';
        frames += static_cast<char>(message.size());
        frames += message;
    }
    return frames;
}

std::string s_message()
{
    const std::string hex = std::getenv("BENCH_MESSAGE");
    std::string bytes;
    for (std::size_t at = 0; at + 1 < hex.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

// The benchmark's clients all send the same key.
constexpr char greeting[] =
    "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n\x81\x02{}";

} // namespace

int main(int argc, char *argv[])
{
    const int device = argc == 2 ? open(argv[1], O_RDWR | O_NOCTTY | O_NONBLOCK) : -1;
    if (device < 0) {
        return 1;
    }
    const int server = s_listen();
    const int poll = epoll_create1(0);
    s_watch(poll, device);
    s_watch(poll, server);
    const std::string message = s_message();
    std::vector<int> clients;
    std::string request(65536, '\0');
    long pending = 0;
    for (;;) {
        epoll_event event{};
        if (epoll_wait(poll, &event, 1, -1) != 1) {
            continue;
        }
        const int ready = event.data.fd;
        if (ready == server) {
            s_watch(poll, accept(server, nullptr, nullptr));
        } else if (ready != device) {
            if (read(ready, request.data(), request.size()) <= 0) {
                close(ready); // all clients leave together, and then the server is not needed any more
                continue;
            }
            clients.push_back(ready);
            (void)!write(ready, greeting, sizeof greeting - 1);
        } else {
            const long count = read(device, request.data(), request.size());
            pending += count > 0 ? count : 0;
            const std::string frames = s_frames(message, static_cast<int>(pending / 11));
            pending %= 11;
            for (int client : clients) {
                (void)!write(client, frames.data(), frames.size());
            }
        }
    }
}
