// What a download of a large file holds in memory, on both sides (Linux): a document of the HTTP service goes to a
// client that reads as fast as it can, and to one that takes at most 64 KiB every five milliseconds, for five seconds.
// Then a bare server sends the same to a download of net_http, which writes it to a file.
//
//   download_memory [MB]
//
// The document is a file that is mapped, so that its pages are not the program's own. Prints, for each: the most bytes
// in blocks of the library above those before it, and the same of the process's own pages, in KiB.
#include "core/memory.h"
#include "inet/net_http.h"
#include "media/http_service.h"
#include "media/station.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

/// A file of zeroes, mapped, in a directory of its own.
struct file_t {
    explicit file_t(size_t bytes) : size(bytes) {
        char name[] = "/tmp/download_memory_XXXXXX";
        if (!mkdtemp(name)) fail(name);
        directory = name;
        const std::string path = directory / "document";
        std::ofstream(path, std::ios::binary).close();
        std::filesystem::resize_file(path, size);
        FILE* const opened = std::fopen(path.c_str(), "rb");
        if (!opened) fail(path.c_str());
        data = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fileno(opened), 0);
        std::fclose(opened);
        if (data == MAP_FAILED) fail("mmap");
    }
    ~file_t() {
        munmap(data, size);
        std::filesystem::remove_all(directory);
    }
    file_t(const file_t&) = delete;
    file_t& operator=(const file_t&) = delete;

    size_t size;
    std::filesystem::path directory;
    void* data = nullptr;
};

/// KiB of the process's own pages.
size_t own_pages() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("RssAnon:")) return std::strtoul(line.c_str() + 8, nullptr, 10);
    return 0;
}

/// Looks every millisecond at what is held while it lives, and prints the most.
class watch {
public:
    explicit watch(const char* name) : name_(name), looker_([this] { look(); }) {}
    ~watch() {
        over_ = true;
        looker_.join();
        std::printf("%s: %zu KiB in blocks, %zu KiB of pages\n", name_, blocks_ / 1024, pages_);
    }
    watch(const watch&) = delete;
    watch& operator=(const watch&) = delete;

private:
    void look() {
        for (; !over_; std::this_thread::sleep_for(milliseconds(1))) {
            blocks_ = std::max(blocks_, core_mem_bytes() - std::min(core_mem_bytes(), blocks_before_));
            pages_ = std::max(pages_, own_pages() - std::min(own_pages(), pages_before_));
        }
    }

    const char* name_;
    size_t blocks_before_ = core_mem_bytes(), pages_before_ = own_pages();
    size_t blocks_ = 0, pages_ = 0;
    std::atomic<bool> over_ = false;
    std::thread looker_;
};

/// Reads `size` bytes, or for as long. @return the bytes
size_t read_plainly(uint16_t port, size_t size, milliseconds pause, milliseconds longest) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    constexpr std::string_view request = "GET /document HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n";
    if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) fail("connect");
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) fail("send");
    static char room[64 * 1024];
    size_t taken = 0;
    const auto end = std::chrono::steady_clock::now() + longest;
    while (taken < size && std::chrono::steady_clock::now() < end) {
        const ssize_t count = recv(fd, room, sizeof room, 0);
        if (count <= 0) break;
        taken += static_cast<size_t>(count);
        if (pause.count() > 0) std::this_thread::sleep_for(pause);
    }
    close(fd);
    return taken;
}

/// Listens on a free port.
class bare_server {
public:
    explicit bare_server(const file_t& document) : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(listener_, generic, size) != 0 || listen(listener_, 1) != 0) fail("listen");
        getsockname(listener_, generic, &size);
        port = ntohs(address.sin_port);
        sender_ = std::thread([this, &document] { serve(document); });
    }
    ~bare_server() {
        sender_.join();
        close(listener_);
    }
    bare_server(const bare_server&) = delete;
    bare_server& operator=(const bare_server&) = delete;

    uint16_t port = 0;

private:
    void serve(const file_t& document) const {
        const int fd = accept(listener_, nullptr, nullptr);
        char request[1024];
        if (recv(fd, request, sizeof request, 0) <= 0) fail("recv");
        const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(document.size) + "\r\n\r\n";
        send(fd, head.data(), head.size(), MSG_NOSIGNAL);
        for (size_t at = 0; at < document.size;) {
            const ssize_t count = send(fd, static_cast<char*>(document.data) + at, document.size - at, MSG_NOSIGNAL);
            if (count <= 0) break;
            at += static_cast<size_t>(count);
        }
        recv(fd, request, sizeof request, 0);  // until the peer has closed
        close(fd);
    }

    int listener_;
    std::thread sender_;
};

/// @return whether the file is there and whole
bool download(uint16_t port, const file_t& document) {
    net::nt_ctx* nt = nullptr;
    net::net_nt_start(nt, CORE_HERE);
    std::atomic<int> told = 0;
    net::http_info info;
    info.arg = &told;
    info.on_message = [](void* arg, net::http_ctx*, int status, net::http::header_s*, const buffer_t*) {
        *static_cast<std::atomic<int>*>(arg) += status == 0 ? 1 : 100;
    };
    info.on_close = [](void* arg, net::http_ctx*) { *static_cast<std::atomic<int>*>(arg) += 100; };
    net::http_ctx* client = net_http_open(info, nt, CORE_HERE);
    net_http_connect(client, "127.0.0.1", port);
    net_http_download(client, "/document", document.directory.c_str(), "copy");
    while (told < 2)
        std::this_thread::sleep_for(milliseconds(5));
    net_http_close(client);
    net::net_nt_stop(nt);
    const std::filesystem::path copy = document.directory / "copy";
    return told == 2 && std::filesystem::exists(copy) && std::filesystem::file_size(copy) == document.size;
}

}  // namespace

int main(int argc, char** argv) {
    const size_t megabytes = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 200;
    const file_t document(megabytes * 1'000'000);
    media::station station;
    media::http_service_t* service = media::http_service({.port = 0});
    media::failure_t error{};
    const media::document_t what{.bytes = {static_cast<uint8_t*>(document.data), static_cast<uint32_t>(document.size)},
                                 .type = "application/octet-stream",
                                 .etag = "\"1\""};
    if (!service || !service->serve("/document", what) || !station.add(service, &error) || !station.start(&error))
        fail("download_memory");
    const uint16_t port = service->port();
    size_t fast = 0;
    size_t slow = 0;
    bool whole = false;
    {
        const watch held("to a fast client");
        fast = read_plainly(port, document.size, {}, milliseconds(60'000));
    }
    {
        const watch held("to a slow client");
        slow = read_plainly(port, document.size, milliseconds(5), milliseconds(5'000));
    }
    {
        const bare_server bare(document);
        const watch held("to a file");
        whole = download(bare.port, document);
    }
    std::printf("taken: %zu MB, %zu MB, and the file %s\n", fast / 1'000'000, slow / 1'000'000,
                whole ? "whole" : "NOT WHOLE");
    station.stop();
    return fast >= document.size && whole ? 0 : 1;
}
