#include "core/array.h"

#include "core/buf.h"
#include "core/memory.h"
#include "core/owned.h"
#include "core/slist.h"
#include "core/text.h"
#include "core/value.h"

#include <gtest/gtest.h>

TEST(Quick, All) {
    buf_t b;
    EXPECT_EQ(core_buf_read(&b, "abcdef", 6), 6u);
    core_buf_ignore(&b, 2);
    EXPECT_EQ(b.length, 4u);
    EXPECT_EQ(b.data[0], 'c');
    core_buf_free(&b);
    value_t** v = core_value_split("a=1; b = 2;;c; d=", ";", "=", CORE_HERE);
    EXPECT_EQ(value_count(v), 4u);
    v = core_value_put(v, "x", "42", CORE_HERE);
    v = core_value_set(v, "a", "7", CORE_HERE);
    EXPECT_STREQ(value_get(v, "a"), "7");
    EXPECT_EQ(value_geti_uint32(v, "X"), 42u);
    EXPECT_STREQ(value_get(v, "d"), "");
    EXPECT_EQ(value_get(v, "c"), nullptr);
    core_value_free(v);
    slist* l = _slist_init(CORE_HERE);
    int one, two;
    EXPECT_EQ(_slist_enqueue(l, &one, CORE_HERE), 1);
    EXPECT_EQ(_slist_enqueue(l, &two, CORE_HERE), 1);
    EXPECT_EQ(slist_count(l), 2u);
    EXPECT_EQ(slist_pop(l), &one);
    EXPECT_EQ(slist_pop(l), &two);
    EXPECT_EQ(slist_pop(l), nullptr);
    EXPECT_EQ(_slist_enqueue(l, &two, CORE_HERE), 1);
    slist_free(l);
    void** a = nullptr;
    char texts[10][2] = {};
    for (char i = 0; i < 10; ++i) {
        texts[int(i)][0] = char('0' + i);
        a = core_array_add(a, texts[int(i)], CORE_HERE);
    }
    a = core_array_rem(a, texts[3], CORE_HERE);
    core::owned_text joined(core_array_to_sstring(reinterpret_cast<char**>(a), ", ", CORE_HERE));
    EXPECT_STREQ(joined.get(), "0, 1, 2, 4, 5, 6, 7, 8, 9");
    core_array_free(a);
    core::owned_text t(core_sprintf(CORE_HERE, "%d-%s-%0300d", 5, "x", 1));
    EXPECT_EQ(core_strlen(t.get()), 304u);
    core::owned<wchar_t> w(core_wchar("a\xc3\xa9\xf0\x9f\x98\x80\xff", CORE_HERE));
    core::owned_text u(core_utf8(w.get(), CORE_HERE));
    EXPECT_STREQ(u.get(), "a\xc3\xa9\xf0\x9f\x98\x80\xef\xbf\xbd");
}
