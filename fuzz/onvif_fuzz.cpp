// What the ONVIF device reads itself: Probes, and the tokens of callers, at the time of the seeds. A token passes once.
#include "discovery/probe.h"
#include "fuzz.h"
#include "onvif/gate.h"

#include "core/time.h"
#include "inet/net_soap.h"

using request_t = core::owned<soap::soap_t, soap_free>;

void fuzz_target(std::span<const uint8_t> input) {
    const std::string text = fuzz::text_of(input);
    try {
        core::string asked;
        if (media::discovery::read_probe(text.c_str(), "onvif://a.b/type/c onvif://a.b/d", asked)) {
            fuzz::require_utf8(asked);
            require(!asked.empty() && asked.size() < 1024);
        }
    } catch (const std::bad_alloc&) {
        require(fuzz::starved);
    }
    core_time_set_clock([]() -> uint64_t { return 1'795'342'500'000'000; });  // 2026-11-22T10:15:00Z
    using media::onvif_calls::token_gate;
    token_gate gate("admin", "secret");
    const request_t request(soap_parse(text.c_str()));
    if (request && gate.judge(request->header) == token_gate::result_t::passes)
        require(gate.judge(request->header) == token_gate::result_t::refused);
    core_time_set_clock(nullptr);
}
