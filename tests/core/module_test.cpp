#include "core/module.h"

#include "platform/system.h"

#include "core/memory.h"

#include <gtest/gtest.h>
#include <string>

namespace {

// INET_MODULE_FIXTURE is the path of the library, which stands beside this program.

TEST(Module, IsLoadedByPathOrByBareName) {
    const std::string full =
        std::string(core::platform::library_prefix) + "inet_module_fixture" + core::platform::library_suffix;
    for (const char* name : {INET_MODULE_FIXTURE, "inet_module_fixture", full.c_str()}) {
        dll_entry_t entries[] = {{"fixture_twice", nullptr}, {"fixture_loads", nullptr}, {nullptr, nullptr}};
        dll_ctx* dll = core_dll_open(name, entries, CORE_HERE);
        ASSERT_TRUE(dll) << name;
        EXPECT_EQ(reinterpret_cast<int (*)(int)>(entries[0].function)(21), 42);
        EXPECT_EQ((*static_cast<int*>(entries[1].function))++, 0) << "a library that was unloaded starts anew";
        core_dll_close(dll);
        EXPECT_FALSE(dll);
    }
}

TEST(Module, MissingEntryOrLibraryGivesNull) {
    dll_entry_t entries[] = {{"fixture_thrice", &entries}, {"fixture_twice", &entries}, {nullptr, nullptr}};
    EXPECT_FALSE(core_dll_open(INET_MODULE_FIXTURE, entries, CORE_HERE));
    EXPECT_FALSE(entries[0].function);
    EXPECT_TRUE(entries[1].function) << "the one it has, so that the caller can tell what is missing";
    for (const char* missing : {"inet_no_such_library", "./inet_module_fixture", ""}) {
        EXPECT_FALSE(core_dll_open(missing, entries, CORE_HERE)) << "a path is not completed";
        EXPECT_FALSE(entries[1].function);
    }
}

}  // namespace
