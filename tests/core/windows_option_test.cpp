// Option files that not everybody may read.
#include "support/files.h"
#include "support/scratch.h"

#include "core/memory.h"
#include "core/option.h"

#include <aclapi.h>
#include <gtest/gtest.h>
#include <memory>
#include <sddl.h>
#include <string>
#include <windows.h>

namespace {

struct local_deleter {
    void operator()(void* block) const { LocalFree(block); }
};

/// The rights on a file as text, beginning with "D:".
std::wstring rights_of(const std::wstring& path) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, nullptr,
                              nullptr, &descriptor) != ERROR_SUCCESS)
        return L"";
    const std::unique_ptr<void, local_deleter> held(descriptor);
    wchar_t* text = nullptr;
    ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text,
                                                         nullptr);
    const std::unique_ptr<void, local_deleter> held_text(text);
    return text ? text : L"";
}

void set_rights(const std::wstring& path, const wchar_t* text) {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(text, SDDL_REVISION_1, &descriptor, nullptr));
    const std::unique_ptr<void, local_deleter> held(descriptor);
    ASSERT_TRUE(SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, descriptor));
}

TEST(Option, SaveKeepsTheAccessRights) {
    const test::scratch dir;
    const std::string path = dir / "options";
    const std::wstring wide(path.begin(), path.end());
    test::write_file(path, test::bytes_of("password=secret\n"));
    const std::wstring others = rights_of(wide);
    set_rights(wide, L"D:P(A;;FA;;;BA)(A;;FA;;;OW)");
    const std::wstring kept = rights_of(wide);
    ASSERT_NE(kept, others);
    opt_ctx* opt = core_opt_create(path.c_str(), CORE_HERE);
    EXPECT_EQ(core_opt_save(opt), 1);
    core_opt_free(opt);
    EXPECT_EQ(rights_of(wide), kept);
}

}  // namespace
