// One HTTP connection of a browser.
#pragma once

#include "http_service/answer_head.h"
#include "http_service/inside.h"
#include "http_service/pictures.h"
#include "http_service/target.h"

#include "inet/net_http.h"

namespace media::web {

class client_t final : public client, public http_exchange, public picture_taker {
public:
    client_t(thread& on, service_t& of) noexcept;
    ~client_t() override;
    /// Takes the connection over, with what it has received. @return false when memory is out
    bool begin(net::Tcp*& from) noexcept;

    uint64_t serve(uint64_t now) noexcept override;
    void second() noexcept override;
    void finish() noexcept override;
    bool finished() const noexcept override { return finished_; }
    bool idle() const noexcept override { return !finished_ && !pictures_ && !sending_; }
    bool watching() const noexcept override { return pictures_ && !snapshot_; }

    // The exchange at hand
    const char* method() const noexcept override { return header_->method; }
    void later() noexcept override { puts_off_ = true; }
    bool was_put_off() const noexcept override { return put_off_ != 0; }
    const char* path() const noexcept override { return target_.path.c_str(); }
    const char* query() const noexcept override { return target_.query.c_str(); }
    const net::http::header_s& header() const noexcept override { return *header_; }
    buffer_t body() const noexcept override { return body_; }
    thread& on() const noexcept override { return thread_; }
    const char* host() const noexcept override { return host_; }
    const char* peer() const noexcept override { return peer_; }
    void answer(const http_answer_t& how, buffer_t bytes) noexcept override;
    void answer_share(const http_answer_t& how, buffer_t bytes, void (*release)(void* owner),
                      void* owner) noexcept override;
    void answer_document(const document_t& what) noexcept override;

private:
    void on_message(int status, net::http::header_s* header, const buffer_t* body) noexcept;
    bool admit() noexcept;
    void ask_handler(uint64_t now) noexcept;
    void ask_again(uint64_t now) noexcept;
    bool is_get() const noexcept;
    void answer_error(unsigned status, const char* field = nullptr, const char* value = nullptr) noexcept;
    void refuse(unsigned status) noexcept;
    void put_fields(answer_head& head, const http_answer_t& how, uint64_t size) noexcept;
    bool send(const answer_head& head, buffer_t text, buffer_t bytes, void (*release)(void*), void* owner) noexcept;
    void send_answer(const http_answer_t& how, uint64_t size, buffer_t text, buffer_t bytes, void (*release)(void*),
                     void* owner) noexcept;
    void on_drained() noexcept;
    void count_bytes() noexcept;

    // Pictures
    stream* find_stream(bool& single) const noexcept;
    bool leads_to_stream() const noexcept;
    bool answer_stream() noexcept;
    void begin_pictures(bool snapshot) noexcept;
    void send_picture() noexcept;
    void send_snapshot() noexcept;
    void leave_pictures() noexcept;
    void on_picture() noexcept override;
    void on_end() noexcept override { finish(); }

    thread& thread_;
    service_t& service_;
    net::http_ctx* http_ = nullptr;
    char host_[16] = "";
    char peer_[16] = "";
    bool finished_ = false;

    // The request at hand
    net::http::header_s* header_ = nullptr;  ///< valid in its calls
    target_t target_;
    buffer_t body_;
    const route_t* route_ = nullptr;
    bool announced_ = false;
    bool answered_ = false;
    bool keeps_ = true;      ///< the connection, behind the answer
    bool sending_ = false;   ///< not all of the answer has gone
    bool puts_off_ = false;  ///< the handler, its answer
    bool head_ = false;      ///< the request that it has put off is a HEAD
    uint64_t put_off_ = 0;   ///< core_timer() when it did so first; 0 for not
    unsigned quiet_ = 0;     ///< seconds since the last request was whole, or answered

    date_text date_;

    pictures* pictures_ = nullptr;  ///< is sent to it as they come
    av::frame_t held_{};            ///< the picture that is being sent
    uint64_t shown_ = 0;            ///< pictures::number() of the last one sent
    bool snapshot_ = false;         ///< one picture is the answer
    bool counts_ = false;           ///< among those that watch
    unsigned waited_ = 0;           ///< seconds for it
    unsigned leaving_ = 0;          ///< seconds since the last answer has gone; 0 while there may be another
    uint64_t counted_ = 0;          ///< of net_http_sent()
};

}  // namespace media::web
