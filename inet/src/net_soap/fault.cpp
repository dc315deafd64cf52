// Faults by their numbers.
#include "net_soap/envelope.h"

#include "core/memory.h"
#include "inet/net_soap.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr char action_failed[] = "The requested SOAP action failed.";

/// `subsubcode` is the name of a fault below its subcode. No place of the document shows it.
constexpr struct row {
    int number;
    const char *code, *subcode, *subsubcode, *reason, *detail;
} faults[] = {
    {1, "env:Receiver", "ter:Action", nullptr, "Action Failed", action_failed},
    {2, "env:Receiver", "ter:Action", "ter:MaxNVTProfiles", "Maximum number reached",
     "The maximum number of supported profiles has been reached."},
    {3, "env:Sender", "ter:InvalidArgVal", nullptr, "Invalid Args", action_failed},
    {0, "", "", nullptr, "", ""},
};

}  // namespace

char* soap_error(int number) noexcept {
    const auto* const closing = std::end(faults) - 1;
    const auto* const found =
        std::find_if(faults, closing, [number](const row& fault) { return fault.number == number; });
    return soap::fill(soap::fault,
                      {{"code", found->code},
                       {"subcode", found->subcode},
                       {"subsubcode", found->subsubcode},
                       {"reason", found->reason},
                       {"detail", found->detail}},
                      CORE_HERE);
}
