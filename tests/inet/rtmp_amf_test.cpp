// Exact bytes of both encodings. What any bytes do to the readers is for the fuzz targets.
#include "inet/rtmp_amf.h"

#include "core/memory.h"
#include "inet/net_amf.h"
#include "inet/rtmp_tree.h"

#include <gtest/gtest.h>

using inet::rtmp::AMF0Serializer;
using inet::rtmp::AMF3Serializer;
using test::tree;
using namespace std::string_literals;

namespace {

template <class Serializer>
std::string read(Serializer& serializer, const std::string& hex) {
    IOBuffer buffer;
    buffer.ReadFromString(test::unhex(hex));
    Variant value;
    if (!serializer.Read(buffer, value)) return "refused";
    return tree(value) + (buffer.Size() > 0 ? " + " + test::hex(buffer) : "");
}

template <class Serializer>
std::string written(const Variant& value) {
    IOBuffer buffer;
    buffer.ReadFromByte(0xEE);
    if (!Serializer().Write(buffer, value)) return buffer.Size() == 1 ? "refused" : "left behind";
    buffer.Ignore(1);
    return test::hex(buffer);
}

/// Bytes of a read, and how they are written in AMF0 and in AMF3.
struct row {
    std::string bytes, read, amf0, amf3;
};

std::string joined(const std::string& hex) { return test::hex(test::unhex(hex)); }

template <class Serializer>
void check(const row& row) {
    SCOPED_TRACE(row.bytes);
    Serializer serializer;
    IOBuffer buffer;
    buffer.ReadFromString(test::unhex(row.bytes));
    Variant value;
    const bool good = serializer.Read(buffer, value);
    EXPECT_EQ(good ? tree(value) : "refused", row.read);
    if (!good) return;
    EXPECT_EQ(written<AMF0Serializer>(value), row.amf0 == "refused" ? row.amf0 : joined(row.amf0));
    EXPECT_EQ(written<AMF3Serializer>(value), row.amf3 == "refused" ? row.amf3 : joined(row.amf3));
}

std::string repeated(uint32_t count, const std::string& part) {
    std::string all;
    for (; count > 0; --count)
        all += part;
    return all;
}

}  // namespace

TEST(AMF0, IsReadAndWritten) {
    const std::string first = "00 3FF0000000000000";  // 1
    const std::string first3 = "05 3FF0000000000000";
    const std::string prefix = joined("5F5F696E6465785F5F76616C75655F5F");  // "__index__value__"
    const row rows[] = {
        {first, "1", first, first3},
        {"01 02", "true", "01 01", "03"},
        {"01 00", "false", "01 00", "02"},
        {"02 0003 616263", "'abc'", "02 0003 616263", "06 07 616263"},
        {"0C 00000000", "''", "02 0000", "06 01"},
        {"05", "null", "05", "01"},
        {"06", "undefined", "06", "00"},
        {"03 000009", "{}", "03 000009", "0A 0B 01 01"},
        {"0B 408F400000000000 FFFF", "@1", "0B 408F400000000000 0000", "08 01 408F400000000000"},
        {"0B C08F400000000000 0000", "@-1", "0B C08F400000000000 0000", "08 01 C08F400000000000"},
        {"0B C062C00000000000 0000", "@0", "0B 0000000000000000 0000", "08 01 0000000000000000"},  // -150 ms
        {"11 0C 05 0102", "<0102>", "11 0C 05 0102", "0C 05 0102"},
        {"11 0C 01", "<>", "11 0C 01", "0C 01"},
        // The order of names: level, code, description, then the others; a later one of a name counts.
        {"03 000B6465736372697074696F6E 05 00056C6576656C 05 0001 62 05 0001 61 05 0004636F6465 05 0001 62 01 01 "
         "000009",
         "{a:null,b:true,code:null,description:null,level:null}",
         "03 00056C6576656C 05 0004636F6465 05 000B6465736372697074696F6E 05 0001 61 05 0001 62 01 01 000009",
         "0A 0B 01 03 61 01 03 62 03 09 636F6465 01 17 6465736372697074696F6E 01 0B 6C6576656C 01 01"},
        {"08 00000002 0001 37 05 0001 61 05 0001 38 06 000009", "[8:undefined,#7:null,a:null]",
         "08 00000003 0001 38 06 0001 37 05 0001 61 05 000009", "09 01 03 38 00 23" + prefix + "37 01 03 61 01 01"},
        {"08 00000000 0001 61 05 000009", "[a:null]", "08 00000001 0001 61 05 000009", "09 01 03 61 01 01"},
        {"08 00000001 0002 3961 05 000009", "[9a:null]", "08 00000001 0002 3961 05 000009", "09 01 05 3961 01 01"},
        {"0A 00000002 05 01 01", "[#0:null,#1:true]", "08 00000002 0001 30 05 0001 31 01 01 000009", "09 05 01 01 03"},
        {"0A 00000000", "[]", "08 00000000 000009", "09 01 01"},
        {"03 0011" + prefix + "37 05 0011" + prefix + "61 05 000009", "{#7:null," + test::unhex(prefix) + "a:null}",
         "03 0001 37 05 0001 61 05 000009", "0A 0B 01 23" + prefix + "37 01 23" + prefix + "61 01 01"},
        {"03 0000 05 000009", "{:null}", "03 0000 05 000009", "refused"},
        // Cut short, unknown, or announced and not there.
        {"", "refused", "", ""},
        {"0B 0000000000000000 00", "refused", "", ""},
        {"03 0000", "refused", "", ""},
        {"03 0001 61 05 0000", "refused", "", ""},
        {"08 00000001 000009", "refused", "", ""},
        {"0A FFFFFFFF 05 05", "refused", "", ""},
        {"0C FFFFFFFF 61", "refused", "", ""},
        {"10 0001 61 000009", "refused", "", ""},
        {"04", "refused", "", ""},
        {"07 0000", "refused", "", ""},
        {"09", "refused", "", ""},
        {"0D", "refused", "", ""},
        {"12", "refused", "", ""},
    };
    for (const row& row : rows)
        check<AMF0Serializer>(row);
}

TEST(AMF3, IsReadAndWritten) {
    const std::string object = "0A 0B 01 03 61 01 01";
    const row rows[] = {
        {"00", "null", "05", "01"},
        {"04 FFFFFFFF", "5.36871e+08", "00 41BFFFFFFF000000", "05 41BFFFFFFF000000"},
        {"04 8100", "128", "00 4060000000000000", "05 4060000000000000"},
        {"08 01 408F400000000000", "@1", "0B 408F400000000000 0000", "08 01 408F400000000000"},
        {"09 05 03 62 02 01 01 03", "[#0:null,#1:true,b:false]",
         "08 00000003 0001 30 05 0001 31 01 01 0001 62 01 00 000009", "09 05 03 62 02 01 01 03"},
        // References: texts, an object, an object to itself, traits; empty texts are in no table.
        {"09 09 01 06 01 06 03 61 06 00 06 01", "[#0:'',#1:'a',#2:'a',#3:'']",
         "08 00000004 0001 30 02 0000 0001 31 02 0001 61 0001 32 02 0001 61 0001 33 02 0000 000009",
         "09 09 01 06 01 06 03 61 06 03 61 06 01"},
        {"09 05 01" + object + "0A 00", "[#0:{a:null},#1:{a:null}]",
         "08 00000002 0001 30 03 0001 61 05 000009 0001 31 03 0001 61 05 000009 000009", "09 05 01" + object + object},
        {"0A 0B 01 03 61 0A 00 01", "{a:null}", "03 0001 61 05 000009", object},
        {"09 05 01 0A 13 01 03 61 03 0A 01 02", "[#0:{____traits____:{a:true}},#1:{____traits____:{a:false}}]",
         "08 00000002 0001 30 03 000E 5F5F5F5F7472616974735F5F5F5F 03 0001 61 01 01 000009 000009"
         " 0001 31 03 000E 5F5F5F5F7472616974735F5F5F5F 03 0001 61 01 00 000009 000009 000009",
         "09 05 01 0A 0B 01 1D 5F5F5F5F7472616974735F5F5F5F 0A 0B 01 03 61 03 01 01"
         " 0A 0B 01 1D 5F5F5F5F7472616974735F5F5F5F 0A 0B 01 03 61 02 01 01"},
        {"0A 0B 03 43 03 61 01 01", "C{a:null}", "10 0001 43 0001 61 05 000009", "refused"},
        {"0A 07 43" + test::hex("flex.messaging.io.ArrayCollection") + "09 03 01 02",
         "flex.messaging.io.ArrayCollection[#0:false]",
         "10 0021" + test::hex("flex.messaging.io.ArrayCollection") + "0001 30 01 00 000009", "refused"},
        {"0A 07 03 43 01", "refused", "", ""},
        {"06 00", "refused", "", ""},
        {"0C 02", "refused", "", ""},
        {"08 00", "refused", "", ""},
        {"0A 00", "refused", "", ""},
        {"0A 01", "refused", "", ""},
        {"09 FFFFFFFF 01 01", "refused", "", ""},
        {"0A FFFFFFFB 01", "refused", "", ""},
        {"04 FFFFFF", "refused", "", ""},
        {"0B 01", "refused", "", ""},
        {"0D", "refused", "", ""},
    };
    for (const row& row : rows)
        check<AMF3Serializer>(row);

    // The tables outlive a read; a copy has its own. An XML document leaves the value as it is.
    AMF3Serializer serializer;
    EXPECT_EQ(read(serializer, "06 07 616263"), "'abc'");
    AMF3Serializer twin(serializer);
    EXPECT_EQ(read(serializer, "06 00"), "'abc'");
    EXPECT_EQ(read(twin, "06 00 07"), "'abc' + 07");
    IOBuffer document;
    document.ReadFromByte(7);
    Variant value;
    value = "kept";
    EXPECT_TRUE(serializer.Read(document, value));
    EXPECT_EQ(tree(value), "'kept'");
}

TEST(AMF, IntegersOfUpTo29Bits) {
    const std::pair<unsigned, const char*> cases[] = {
        {0x7F, "7F"},         {0x80, "8100"},         {0x3FFF, "FF7F"},         {0x4000, "818000"},
        {0x1FFFFF, "FFFF7F"}, {0x200000, "80C08000"}, {0x1FFFFFFF, "FFFFFFFF"},
    };
    for (const auto& [value, bytes] : cases) {
        IOBuffer buffer;
        unsigned back = 0;
        EXPECT_TRUE(AMF3Serializer::WriteU29(buffer, value));
        EXPECT_EQ(test::hex(buffer), bytes);
        EXPECT_TRUE(AMF3Serializer::ReadU29(buffer, back));
        EXPECT_EQ(back, value);
    }
    IOBuffer buffer;
    EXPECT_FALSE(AMF3Serializer::WriteU29(buffer, 0x20000000));
}

TEST(AMF, BoundsHold) {
    AMF0Serializer amf0;
    Variant text;
    text = std::string(65535, 'a');
    EXPECT_EQ(written<AMF0Serializer>(text).substr(0, 8), "02FFFF61");
    text = std::string(65536, 'a');
    EXPECT_EQ(written<AMF0Serializer>(text).substr(0, 12), "0C0001000061");

    const auto nested = [](uint32_t levels) { return repeated(levels, "0A 00000001") + "05"; };
    EXPECT_NE(read(amf0, nested(64)), "refused");
    EXPECT_EQ(read(amf0, nested(65)), "refused");
    Variant deep;
    for (int i = 0; i < 65; ++i) {
        Variant outer;
        outer[0] = std::move(deep);
        deep = std::move(outer);
        const std::string as_amf0 = written<AMF0Serializer>(deep);
        const std::string as_amf3 = written<AMF3Serializer>(deep);
        EXPECT_EQ(as_amf0 == "refused", i == 64);
        EXPECT_EQ(as_amf3 == "refused", i == 64);
    }

    // Each array names the one before it eight times; each object the one before it.
    std::string bomb;
    std::string chain;
    for (char i = 0; i < 100; ++i) {
        const std::string reference = "09" + test::hex(std::string(1, static_cast<char>(2 * (i - 1))));
        if (i < 60) bomb += i == 0 ? "09 01 01" : "09 11 01" + repeated(8, reference);
        if (i < 64) chain += i == 0 ? "09 01 01" : "09 03 01" + reference;
    }
    const size_t before = core_mem_bytes();
    AMF3Serializer amf3;
    EXPECT_EQ(read(amf3, "09 78 01" + bomb), "refused");
    EXPECT_LT(core_mem_bytes() - before, 100'000);
    EXPECT_EQ(read(amf3, "09 8101 01" + chain), "refused");  // 64 levels inside another one
    EXPECT_EQ(read(amf0, "0A 00100000" + repeated(1000, repeated(300, "05"))), "refused");
}

TEST(AMF, FlatReader) {
    struct {
        const char* bytes;
        int used;
        const char* text;
    } const cases[] = {
        {"02 0003 616263 FF", 6, "abc"},
        {"02 0000", 3, ""},
        {"02 0003 6162", 0, nullptr},
        {"02 00", 0, nullptr},
        {"", 0, nullptr},
        {"03 000009", 4, nullptr},
        {"03 0001 61 00 0000000000000000 0001 62 03 000009 0001 63 0D 0001 64 08 00000000 000009 000009 FF", 38,
         nullptr},
        {"03 0001 61 FF 0102 000009 FF", 10, nullptr},
        {"03 0001 61 05", 0, nullptr},
        {"00 0000000000000000", 1, nullptr},
        {"FF", 1, nullptr},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.bytes);
        const std::string bytes = test::unhex(row.bytes);
        net::amf_val* value = nullptr;
        EXPECT_EQ(net::net_amf_read(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), value, CORE_HERE),
                  row.used);
        EXPECT_EQ(value != nullptr, row.text != nullptr);
        EXPECT_STREQ(value ? static_cast<const char*>(value->value) : nullptr, row.text);
        net::net_amf_free(value);
    }
}
