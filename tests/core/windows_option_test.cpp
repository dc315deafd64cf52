// Option files that not everybody may read.
#include "support/files.h"
#include "support/held.h"
#include "support/scratch.h"

#include "core/memory.h"
#include "core/option.h"

#include <aclapi.h>
#include <gtest/gtest.h>
#include <sddl.h>
#include <string>
#include <windows.h>

namespace {

/// The rights on a file as text, beginning with "D:".
std::wstring rights_of(const std::wstring& path) {
    PSECURITY_DESCRIPTOR found = nullptr;
    GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, nullptr, nullptr,
                          &found);
    const test::held<void, LocalFree> held(found);
    wchar_t* text = nullptr;
    ConvertSecurityDescriptorToStringSecurityDescriptorW(found, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text,
                                                         nullptr);
    const test::held<wchar_t, LocalFree> held_text(text);
    return text ? text : L"";
}

TEST(Option, SaveKeepsTheAccessRights) {
    const test::scratch dir;
    const std::string path = dir / "options";
    const std::wstring wide(path.begin(), path.end());
    test::write_file(path, test::bytes_of("password=secret\n"));
    const std::wstring others = rights_of(wide);
    PSECURITY_DESCRIPTOR own = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;;FA;;;BA)(A;;FA;;;OW)", SDDL_REVISION_1,
                                                                     &own, nullptr));
    const test::held<void, LocalFree> held(own);
    ASSERT_TRUE(SetFileSecurityW(wide.c_str(), DACL_SECURITY_INFORMATION, own));
    const std::wstring kept = rights_of(wide);
    ASSERT_NE(kept, others);
    opt_ctx* opt = core_opt_create(path.c_str(), CORE_HERE);
    EXPECT_EQ(core_opt_save(opt), 1);
    core_opt_free(opt);
    EXPECT_EQ(rights_of(wide), kept);
}

}  // namespace
