#include "inet/net_http.h"

#include "net_http/connection.h"

#include <utility>

using net::http_ctx;

http_ctx* net_http_open(net::http_info info, net::nt_ctx* nt, const char* file, int line) noexcept {
    slist* queue = _slist_init(file, line);
    log_ctx* log = core_log_create(file, line, "http");
    auto* made =
        nt && queue && log ? core::create<http_ctx::inside>(file, line, info, nt, log, queue, file, line) : nullptr;
    if (made) return &made->face;
    slist_free(queue);
    core_log_free(log);
    return nullptr;
}

int net_http_listen(http_ctx* ctx, const char* address, unsigned port) noexcept {
    if (!ctx) return -5;
    if (!address || port == 0) return -2;
    return ctx->fd >= 0 ? -5 : ctx->in->listen(address, port);
}

int net_http_accept(http_ctx* ctx, int fd) noexcept { return ctx ? ctx->in->accept(fd) : -5; }

int net_http_take(http_ctx* ctx, net::Tcp*& from) noexcept {
    if (!ctx) return -5;
    if (!from) return -2;
    ctx->in->take(*std::exchange(from, nullptr));
    return 0;
}

void net_http_connect(http_ctx* ctx, const char* host, unsigned port) noexcept {
    if (ctx) ctx->in->connect(host ? host : "", port);
}

int net_http_set_login(http_ctx* ctx, const char* user, const char* password) noexcept {
    return ctx && ctx->in->set_login(user, password) ? 1 : 0;
}

int net_http_send_message(http_ctx* ctx, const net::http::header_s* header, const void* body, unsigned size) noexcept {
    auto* const bytes = static_cast<uint8_t*>(const_cast<void*>(body));
    return ctx ? ctx->in->send(header, {bytes, body ? size : 0}, {}) : 0;
}

int net_http_send_share(http_ctx* ctx, const net::http::header_s* header, buffer_t text, buffer_t body,
                        void (*release)(void* owner), void* owner) noexcept {
    net::http::lent share(body, release, owner);
    return ctx ? ctx->in->send(header, text, std::move(share)) : 0;
}

int net_http_recv(http_ctx* ctx, const char* uri) noexcept {
    return ctx ? ctx->in->request("GET", uri, nullptr, 0, nullptr) : 0;
}

int net_http_post(http_ctx* ctx, const char* uri, const void* data, size_t size) noexcept {
    return ctx ? ctx->in->request("POST", uri, data, size, nullptr) : 0;
}

int net_http_download(http_ctx* ctx, const char* uri, const char* directory, const char* name) noexcept {
    if (!ctx || !uri || !directory || !net::http::is_plain_name(name)) return -2;
    core::owned_object<net::http::download> to = ctx->in->file_for(directory, name);
    return to ? ctx->in->request("GET", uri, nullptr, 0, std::move(to)) : 0;
}

int net_http_save(http_ctx* ctx, const char* directory, const char* name) noexcept {
    if (!ctx || !directory || !net::http::is_plain_name(name)) return -2;
    core::owned_object<net::http::download> to = ctx->in->file_for(directory, name);
    return to && ctx->in->reader.save(std::move(to)) ? 1 : 0;
}

int net_http_split(http_ctx* ctx) noexcept { return ctx && ctx->in->reader.split_if_parts() ? 1 : 0; }

uint64_t net_http_saved(const http_ctx* ctx) noexcept { return ctx ? ctx->in->reader.saved() : 0; }

void net_http_set_type(http_ctx* ctx, const char* type) noexcept {
    if (ctx) ctx->in->reader.set_types(type);
}

void net_http_set_limit(http_ctx* ctx, uint32_t bytes) noexcept {
    if (ctx) ctx->in->reader.set_limit(bytes);
}

void net_http_finish(http_ctx* ctx) noexcept {
    if (ctx) ctx->in->finish();
}

unsigned net_http_second(http_ctx* ctx) noexcept { return ctx ? ctx->in->second() : 0; }

void net_http_give_up(http_ctx* ctx) noexcept {
    if (net::Tcp* const tcp = ctx ? ctx->in->tcp.load() : nullptr) tcp->give_up();
}

uint64_t net_http_sent(const http_ctx* ctx) noexcept {
    const net::Tcp* const tcp = ctx ? ctx->in->tcp.load() : nullptr;
    return tcp ? tcp->sent() : 0;
}

void net_http_close(http_ctx*& ctx) noexcept {
    if (ctx) std::exchange(ctx, nullptr)->in->close();
}
