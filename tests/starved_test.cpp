// Scenarios in which each allocation fails in turn, for what no fuzz target reaches. A scenario checks what is promised
// for lack of memory and releases everything it got.
#include "support/fault.h"
#include "support/files.h"
#include "support/held.h"
#include "support/network_thread.h"
#include "support/scratch.h"
#include "support/sockets.h"

#include "avc/fcc.h"
#include "avc/frame.h"
#include "common/digest.h"
#include "core/buf.h"
#include "core/cmd.h"
#include "core/file.h"
#include "core/list.h"
#include "core/log.h"
#include "core/module.h"
#include "core/option.h"
#include "core/owned.h"
#include "core/profile.h"
#include "core/queue.h"
#include "core/slist.h"
#include "core/text.h"
#include "core/thread.h"
#include "core/time.h"
#include "core/value.h"
#include "inet/net_tcp.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace {

struct scenario_t {
    const char* name;
    void (*run)();
    size_t allocations;  ///< of which at least so many are made to fail
};

// core

void fill_buffers() {
    buf_t buf{};
    uint32_t length = 0;
    for (int i = 0; i < 4; ++i)
        length += core_buf_read(&buf, std::string(60, 'b').data(), 60);
    EXPECT_EQ(core_buf_resize(&buf, 1000, CORE_HERE) ? 1000U : buf.size, buf.size);
    EXPECT_EQ(std::string(buf.data, buf.data + buf.length), std::string(length, 'b'));
    core_buf_free(&buf);
    buffer_t span{};
    uint32_t size = 0;
    if (core_buffer_set(&span, "abc", 3, CORE_HERE)) size = 3;
    if (core_buffer_set(&span, "abcd", 4, CORE_HERE)) size = 4;
    if (buffer_resize(&span, 100, CORE_HERE)) size = 100;
    if (core_buffer_unhex(&span, "61", CORE_HERE)) size = 1;
    EXPECT_EQ(span.size, size);
    EXPECT_TRUE(size == 0 || *span.data == 'a');
    core_buffer_free(&span);
}

void fill_lists() {
    int item = 0;
    const test::held<list_ctx, core_list_free> list(core_list_create(CORE_HERE));
    const test::held<slist, slist_free> single(_slist_init(CORE_HERE));
    const test::held<queue_ctx, core_queue_close> queue(core_queue_open(3, 10, CORE_HERE));
    const test::held<cmd_ctx, core_cmd_close> cmd(core_cmd_open(&item, CORE_HERE));
    const int added = core_list_add(list.get(), &item, CORE_HERE) + core_list_enqueue(list.get(), &item, CORE_HERE);
    EXPECT_EQ(list_count(list.get()), static_cast<uint32_t>(added));
    const int queued = _slist_enqueue(single.get(), &item, CORE_HERE);
    EXPECT_EQ(slist_pop(single.get()), queued ? &item : nullptr);
    EXPECT_EQ(core_queue_get_free(queue.get()) != nullptr, queue != nullptr);
    const int posted = core_cmd_exec(
        cmd.get(), [](void* owner, void*) { ++*static_cast<int*>(owner); }, nullptr);
    core_cmd_process(cmd.get());
    EXPECT_EQ(item, posted);
}

void fill_values() {
    value_t** list = core_value_split("a=1;b=2;c=3", ";", "=", CORE_HERE);
    EXPECT_TRUE(!list || value_count(list) == 3) << "all or nothing";
    for (int i = 0; i < 6; ++i) {
        const uint32_t before = value_count(list);
        list = core_value_put(list, "key", "value", CORE_HERE);
        EXPECT_LE(value_count(list), before + 1);
    }
    list = core_value_set(list, "key", "other", CORE_HERE);
    EXPECT_NE(value_get(list, "key"), nullptr);
    core_value_free(list);
}

void make_texts() {
    size_t missing = 0;
    for (char* text : {core_strdup("a", CORE_HERE), core_strndup("a", 1, CORE_HERE), core_sprintf(CORE_HERE, "%d", 1),
                       core_sprintf(CORE_HERE, "%300d", 1), core_strhex("a", 1, CORE_HERE),
                       core_str_from_time(0, "%H", CORE_HERE)}) {
        missing += text == nullptr;
        core_mfree(text);
    }
    EXPECT_LE(missing, 1U);
}

void change_an_option() {
    const test::scratch dir;
    const std::string path = dir / "options";
    test::write_file(path, test::bytes_of("a=1\nb=2\n"));
    const test::held<opt_ctx, core_opt_free> opt(core_opt_create(path.c_str(), CORE_HERE));
    core_mfree(core_opt_get(opt.get(), "a", nullptr, CORE_HERE));
    const int set = core_opt_set(opt.get(), "a", std::string(100, '1').c_str());
    const int saved = core_opt_save(opt.get());
    EXPECT_EQ(test::read_file(path).size(), set && saved ? 107U : 8U);
    if (file_ctx* file = core_fopen(path.c_str(), "wb", CORE_HERE))
        core_fclose(file);
    else
        EXPECT_NE(test::read_file(path), "") << "a file is not emptied in vain";
}

void print_to_a_sink() {
    int lines = 0;
    const auto write = [](void* to, const log_line_t*) { ++*static_cast<int*>(to); };
    const test::held<log_ctx, core_log_free> log(core_log_create(CORE_HERE, "starved"));
    const uint32_t sink = core_log_sink_add("starved", write, &lines);
    core_log_print(log.get(), "%d", 1);
    EXPECT_EQ(lines, log && sink ? 1 : 0);
    core_log_sink_rem(sink);
}

void start_threads() {
    const test::held<event_ctx, _event_free> event(_event_create(CORE_HERE));
    const test::held<lock_ctx, core_lock_delete> lock(core_lock_create(CORE_HERE));
    thread_ctx* thread = core_thread_start(
        nullptr, [](void*, thread_ctx*) {}, nullptr, CORE_HERE);
    core_thread_stop(thread);
    const auto call = [](void* arg) { event_set(static_cast<event_ctx*>(arg)); };
    if (event && core_thread_invoke(call, event.get(), CORE_HERE)) EXPECT_EQ(event_wait(event.get(), 60'000), 1);
}

void ask_a_profile() {
    constexpr param_t list[] = {{"state", "on"}, {"count", int64_t{-3}}, {}};
    const auto answer = [](void*, profile_ctx* profile, profile_event_t, const param_t*) {
        core_profile_answer(profile, "yes");
    };
    using handle = test::held<profile_ctx, profile_close>;
    const handle answering(core_profile_open2("memory", nullptr, answer, CORE_HERE));
    const handle asking(profile_open("memory"));
    EXPECT_EQ(core_profile_put(asking.get(), list), asking && answering ? 1U : 0U);
    core_mfree(profile_data("memory", CORE_HERE));
    core_mfree(profile_request(asking.get(), list, CORE_HERE));
}

void open_a_missing_module() { EXPECT_EQ(core_dll_open("no such module", nullptr, CORE_HERE), nullptr); }

// common, avc

void decode_base64() {
    buf_t out;
    EXPECT_EQ(b64_decode("Zm9v", 4, &out, CORE_HERE), out.length);
    core_buf_free(&out);
}

/// A frame made, shared and copied, each whole or not at all.
void make_frames() {
    constexpr uint8_t lent[] = "lent";
    av::frame_t* made = avc_frame_create(av::fcc_pcmu, 1, lent, 4, CORE_HERE);
    av::frame_t* shared = avc_frame_dup(made, CORE_HERE);
    av::frame_t borrowed{};
    borrowed.data = lent;
    borrowed.size = 4;
    av::frame_t* copied = avc_frame_dup(&borrowed, CORE_HERE);
    for (av::frame_t** frame : {&made, &shared, &copied})
        avc_frame_need(*frame);
    av::meta_t* meta = avc_meta_create(av::fcc_meta, 1, "{}", 2, CORE_HERE);
    avc_meta_need(meta);
}

// inet: sockets, the network thread

void open_sockets() {
    const test::tcp_socket socket;
    const test::socket_pair pair;
    int fds[2] = {-1, -1};
    socket_rtp_pair(&fds[0], &fds[1]);
    const test::tcp_socket rtp(fds[0]), rtcp(fds[1]);
    core_mfree(net_hostip(CORE_HERE));
}

void accept_connections() {
    const unsigned short port = test::free_port();
    const test::network_thread nt;
    const test::tcp_socket client;
    net::tcp_ctx* tcp = nullptr;
    if (client >= 0 && port != 0 && net::net_tcp_create(tcp, nt, CORE_HERE) == 0) {
        const int listens = net::net_tcp_listen2(tcp, "127.0.0.1", port, nullptr, nullptr);
        net_tcp_connect(client, "127.0.0.1", port);
        EXPECT_TRUE(listens != 0 || test::await(client, test::watch::read)) << "it is closed in any case";
    }
    net::net_tcp_close(tcp);
}

void use_a_network_thread() {
    test::callback read, called;
    const test::socket_pair pair;
    if (pair.here < 0) return;
    pair.poke();
    const test::network_thread nt;
    net::socket_ctx* socket = nullptr;
    net::timer_ctx* timer = nullptr;
    net::net_nt_timer_set(nt, timer, 3600, &called, test::callback::run);
    net::command_ctx* command = net::net_nt_command_create(nt, &called, test::callback::run);
    net::net_nt_command_exec(command);
    const int queued = net::net_nt_sync_call(nt, nullptr, &called, test::callback::run);
    EXPECT_TRUE(called.reaches(command ? 1 + queued : queued));
    net::net_nt_socket_add(nt, socket, pair.here, net::nt_flag_read, &read, test::callback::run);
    EXPECT_TRUE(!socket || read.reaches(1)) << "what the loop has no memory for is not left for a whole wait";
    net::net_nt_socket_rem(nt, socket);
}

// inet: RTP

// inet: RTSP

constexpr scenario_t scenarios[] = {
    // core
    {"Buffers", fill_buffers, 5},
    {"Lists", fill_lists, 8},
    {"Values", fill_values, 10},
    {"Texts", make_texts, 6},
    {"Option", change_an_option, 8},
    {"Log", print_to_a_sink, 2},
    {"Threads", start_threads, 4},
    {"Profile", ask_a_profile, 6},
    {"Module", open_a_missing_module, 1},
    // common, avc
    {"Base64", decode_base64, 1},
    {"Frame", make_frames, 7},  // the shared one takes its record alone, the others their bytes, too
    // inet: sockets, the network thread
    {"Sockets", open_sockets, 6},
    {"Listener", accept_connections, 10},
    {"NetworkThread", use_a_network_thread, 12},
    // inet: RTP
    // inet: RTSP
};

class Starved : public testing::TestWithParam<scenario_t> {};

TEST_P(Starved, KeepsItsPromisesAndHoldsNothing) {
    const int sockets = test::open_sockets();
    EXPECT_GE(test::fail_each_allocation(GetParam().run), GetParam().allocations);
    EXPECT_EQ(test::open_sockets(), sockets);
}

INSTANTIATE_TEST_SUITE_P(, Starved, testing::ValuesIn(scenarios), [](const auto& tested) { return tested.param.name; });

}  // namespace
