#include "auth/challenge.h"

#include "auth/grammar.h"
#include "scan.h"

#include "common/digest.h"
#include "core/memory.h"
#include "core/text.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <utility>

namespace auth {

namespace {

constexpr uint32_t cnonce_length = 16;

constexpr algorithm_t algorithms[] = {
    {"MD5", hash_t::md5, false},
    {"MD5-sess", hash_t::md5, true},
    {"SHA-256", hash_t::sha256, false},
    {"SHA-256-sess", hash_t::sha256, true},
};

/// In the order of preference.
constexpr qop_t qops[] = {{"auth", false}, {"auth-int", true}};

/// The first that a list of them offers; null for none.
const qop_t* find_qop(std::string_view list) noexcept {
    const auto* const found = std::ranges::find_if(qops, [&](const qop_t& known) { return lists(list, known.name); });
    return found == std::end(qops) ? nullptr : found;
}

bool is_printable(std::string_view text) noexcept {
    return std::ranges::none_of(text, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; });
}

/// A value as it stands between quotes; null when memory is out.
core::owned_text escape(std::string_view text) noexcept {
    core::owned_text out(static_cast<char*>(core_malloc(2 * text.size() + 1, CORE_HERE)));
    if (!out) return out;
    char* at = out.get();
    for (const char c : text) {
        if (c == '"' || c == '\\') *at++ = '\\';
        *at++ = c;
    }
    *at = '\0';
    return out;
}

}  // namespace

/// One challenge of a field.
struct challenge::said_t {
    std::string_view scheme;
    std::optional<std::string_view> realm;
    std::optional<std::string_view> nonce;
    std::optional<std::string_view> opaque;
    std::optional<std::string_view> algorithm;
    std::optional<std::string_view> qop;
    std::optional<std::string_view> stale;

    void take(std::string_view name, std::string_view value) noexcept {
        static constexpr std::pair<std::string_view, std::optional<std::string_view> said_t::*> known[] = {
            {"realm", &said_t::realm},         {"nonce", &said_t::nonce}, {"opaque", &said_t::opaque},
            {"algorithm", &said_t::algorithm}, {"qop", &said_t::qop},     {"stale", &said_t::stale},
        };
        for (const auto& [each, field] : known) {
            if (scan::same_name(each, name) && !(this->*field)) this->*field = value;
        }
    }
};

/// Goes through the challenges of a working copy. What breaks the grammar costs the parameter that it stands in.
class challenge::fields_reader {
public:
    explicit fields_reader(char* text) noexcept : in_(text) {}

    /// @return false when there is none left
    bool next(said_t* out) noexcept {
        *out = {std::exchange(scheme_, {}), {}, {}, {}, {}, {}, {}};
        for (;;) {
            in_.skip(" \t,");
            if (in_.ends()) return !out->scheme.empty();
            const std::string_view word = in_.token();
            if (word.empty()) {
                in_.step();
                continue;
            }
            in_.skip(blanks);
            if (*in_.at() == '=') {
                in_.step();
                out->take(word, read_value());
            } else if (out->scheme.empty()) {
                out->scheme = word;
            } else {
                scheme_ = word;
                return true;
            }
        }
    }

private:
    std::string_view read_value() noexcept {
        in_.skip(blanks);
        if (const auto value = in_.quoted()) return *value;
        const std::string_view bare = in_.rest_of_element();
        return bare.starts_with('"') ? bare.substr(1) : bare;
    }

    reader in_;
    std::string_view scheme_;  // of the next one
};

bool challenge::take(const net::http::header_s* header) noexcept {
    challenge basic;
    for (value_t* const* field = header->fields; field && *field; ++field) {
        if (core_strcasecmp((*field)->key, "WWW-Authenticate") != 0 || !(*field)->value) continue;
        challenge made;
        made.text_.reset(core_strdup((*field)->value, CORE_HERE));
        if (!made.text_) return false;
        fields_reader in(made.text_.get());
        bool offers_basic = false;
        for (said_t said; in.next(&said);) {
            if (scan::same_name(said.scheme, "Basic")) offers_basic = true;
            if (!scan::same_name(said.scheme, "Digest") || !made.choose(said)) continue;
            made.cnonce_.reset(common_srand(cnonce_length, CORE_HERE));
            if (!made.cnonce_) return false;
            *this = std::move(made);
            return true;
        }
        if (offers_basic && !basic.is_taken()) basic = std::move(made);
    }
    if (!basic.is_taken()) return false;
    *this = std::move(basic);
    return true;
}

/// Whether a Digest challenge can be computed; its values are then taken.
bool challenge::choose(const said_t& said) noexcept {
    if (!said.realm || !said.nonce) return false;
    if (!is_printable(*said.realm) || !is_printable(*said.nonce) || !is_printable(said.opaque.value_or("")))
        return false;
    const std::string_view name = said.algorithm && !said.algorithm->empty() ? *said.algorithm : "MD5";
    const auto* const found =
        std::ranges::find_if(algorithms, [&](const algorithm_t& known) { return scan::same_name(known.name, name); });
    const bool has_qop = said.qop && !said.qop->empty();
    const qop_t* const qop = has_qop ? find_qop(*said.qop) : nullptr;
    if (found == std::end(algorithms) || (has_qop && !qop)) return false;
    algorithm_ = found;
    qop_ = qop;
    realm_ = *said.realm;
    nonce_ = *said.nonce;
    opaque_ = said.opaque.value_or("");
    has_opaque_ = said.opaque.has_value();
    stale_ = said.stale && scan::same_name(*said.stale, "true");
    return true;
}

core::owned_text challenge::answer(std::string_view user, std::string_view password, std::string_view method,
                                   std::string_view uri, std::string_view body) noexcept {
    if (!algorithm_) {
        const core::owned_text pair = join({user, password});
        const core::owned_text coded(pair ? b64(pair.get(), core_strlen(pair.get()), CORE_HERE) : nullptr);
        return core::owned_text(coded ? core_sprintf(CORE_HERE, "Basic %s", coded.get()) : nullptr);
    }
    char nc[9];
    std::snprintf(nc, sizeof nc, "%08x", ++count_);
    digest_input in{user, password, realm_, nonce_, method, uri, {}, nc, cnonce_.get()};
    in.hash = algorithm_->hash;
    in.session = algorithm_->session;
    if (qop_) in.qop = qop_->name;
    in.covers_body = qop_ && qop_->covers_body;
    in.body = body;

    const hex_t response = digest_response(in);
    const core::owned_text name = escape(user);
    const core::owned_text realm = escape(realm_);
    const core::owned_text nonce = escape(nonce_);
    const core::owned_text target = escape(uri);
    const core::owned_text opaque = escape(opaque_);
    if (!response || !name || !realm || !nonce || !target || !opaque) return nullptr;
    core::owned_text value(core_sprintf(
        CORE_HERE, R"(Digest username="%s", realm="%s", nonce="%s", uri="%s", response="%s", algorithm=%s)", name.get(),
        realm.get(), nonce.get(), target.get(), response.text, algorithm_->name.data()));
    if (value && has_opaque_) value.reset(core_sprintf(CORE_HERE, R"(%s, opaque="%s")", value.get(), opaque.get()));
    // An algorithm of a session cannot be checked without the client's nonce, whatever else is offered.
    if (value && (qop_ || in.session))
        value.reset(core_sprintf(CORE_HERE, R"(%s, cnonce="%s")", value.get(), cnonce_.get()));
    if (value && qop_) value.reset(core_sprintf(CORE_HERE, "%s, qop=%s, nc=%s", value.get(), qop_->name.data(), nc));
    return value;
}

}  // namespace auth
