#include "core/slist.h"

#include "core/owned.h"

#include <atomic>
#include <utility>

// The queue of Michael and Scott: a chain whose first node holds nothing. Who appends swings the link behind the last
// node and then `tail`, which may lag by one node and is helped on by whoever finds it so; who takes swings `head`, and
// the node that it leads to becomes the one that holds nothing. Each step is one compare-and-swap that fails only when
// another thread's went through, so a thread that is stopped anywhere stops nobody.
//
// A node that was cut off may still be in the hands of a thread that read the chain before. So it waits
// until some thread finds itself the only one inside, as none that comes later can reach it. That also keeps an address
// from coming back while somebody compares with it.
namespace {

struct node_t {
    void* item;
    std::atomic<node_t*> next{nullptr};
    node_t* next_cut_off = nullptr;
};

}  // namespace

struct slist {
    slist() noexcept = default;
    slist(const slist&) = delete;
    slist& operator=(const slist&) = delete;
    ~slist() {
        node_t* const last = head;
        if (last != &first) core::destroy(last);
        release(waiting);
    }

    void append(node_t* node) noexcept {
        const visit visiting(*this);
        // Before it can be taken: never less than there are.
        ++count;
        while (true) {
            node_t* last = tail;
            node_t* next = last->next;
            if (!next && last->next.compare_exchange_strong(next, node)) {
                tail.compare_exchange_strong(last, node);
                return;
            }
            tail.compare_exchange_strong(last, next);
        }
    }

    void* take() noexcept {
        // The loop asks its lists on every pass: an empty one costs it a load.
        if (count == 0) return nullptr;
        const visit visiting(*this);
        while (true) {
            node_t* before = head;
            node_t* last = tail;
            node_t* const next = before->next;
            if (!next) return nullptr;
            if (before == last) {
                tail.compare_exchange_strong(last, next);
            } else if (head.compare_exchange_strong(before, next)) {
                --count;
                cut_off(before);
                return next->item;
            }
        }
    }

    std::atomic<uint32_t> count{0};

private:
    /// A thread inside; the last one to leave releases what was cut off.
    class visit {
    public:
        explicit visit(slist& list) noexcept : list_(list) { ++list_.inside; }
        ~visit() {
            if (list_.inside == 1) list_.release_cut_off();
            --list_.inside;
        }
        visit(const visit&) = delete;
        visit& operator=(const visit&) = delete;

    private:
        slist& list_;
    };

    void cut_off(node_t* node) noexcept {
        if (node != &first) push_cut_off(node, node);
    }

    void push_cut_off(node_t* from, node_t* to) noexcept {
        to->next_cut_off = waiting;
        while (!waiting.compare_exchange_weak(to->next_cut_off, from)) {
        }
    }

    void release_cut_off() noexcept {
        node_t* node = waiting.exchange(nullptr);
        if (!node) return;
        if (inside != 1) {
            // Somebody came, and may have cut off more before this took it, which another one still reads.
            node_t* last = node;
            while (last->next_cut_off)
                last = last->next_cut_off;
            return push_cut_off(node, last);
        }
        release(node);
    }

    static void release(node_t* node) noexcept {
        while (node)
            core::destroy(std::exchange(node, node->next_cut_off));
    }

    node_t first{nullptr};
    std::atomic<node_t*> head{&first};
    std::atomic<node_t*> tail{&first};
    std::atomic<node_t*> waiting{nullptr};
    std::atomic<uint32_t> inside{0};  ///< threads
};

slist* _slist_init(const char* file, int line) noexcept { return core::create<slist>(file, line); }

int _slist_enqueue(slist* list, void* item, const char* file, int line) noexcept {
    if (!list || !item) return 0;
    auto* node = core::create<node_t>(file, line, item);
    if (!node) return 0;
    list->append(node);
    return 1;
}

void* slist_pop(slist* list) noexcept { return list ? list->take() : nullptr; }

uint32_t slist_count(slist* list) noexcept { return list ? list->count.load() : 0; }

void slist_free(slist*& list) noexcept {
    while (slist_pop(list)) {
    }
    core::destroy(std::exchange(list, nullptr));
}
