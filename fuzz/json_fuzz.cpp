// Any JSON text is read without a fault or refused with a reason. What is read prints as text that is read as the same
// again, in memory bounded by the text's size.
#include "fuzz.h"

#include "core/json_print.h"

void fuzz_target(std::span<const uint8_t> input) {
    const std::string text = fuzz::text_of(input);
    char error[64];
    json_t* root = yajl_tree_parse(text.c_str(), error, sizeof(error));
    require((root != nullptr) == (error[0] == '\0'));
    if (root) {
        require(core_mem_size(root) <= 32 * text.size() + sizeof(json_t));
        const std::string printed = test::print(*root);
        yajl_tree_free(root);
        // Infinity and what has no end would not be read again.
        root = yajl_tree_parse(printed.c_str(), nullptr, 0);
        require((root && test::print(*root) == printed) || fuzz::starved);
        yajl_tree_free(root);
    }
    root = yajl_tree_parse(test::quoted(text.c_str()).c_str(), nullptr, 0);
    require((root && root->type == json_string) || fuzz::starved);
    yajl_tree_free(root);
}
