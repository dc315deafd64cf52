// Dialogs that tests and fuzz targets share.
#pragma once

#include "support/files.h"

#include <string>

namespace test {

/// A seed of a fuzz target, without the byte that says how it is to be fed.
inline std::string dialog(const std::string& seed) {
    return read_file(std::string(INET_TEST_DATA) + "/../../fuzz/corpus/" + seed).substr(1);
}

}  // namespace test
