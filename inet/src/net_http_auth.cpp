#include "inet/net_http_auth.h"

#include "auth/challenge.h"
#include "auth/digest.h"
#include "auth/grammar.h"
#include "scan.h"

#include "common/digest.h"
#include "core/memory.h"
#include "core/owned.h"
#include "core/text.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <string_view>

using core::owned_text;
using net::http::header_s;

namespace {

constexpr uint32_t cnonce_length = 16;
constexpr std::string_view nonce_count = "00000001";
constexpr size_t scheme_length = 6;
constexpr size_t max_value = 4096;

/// Precision and start of a view, for "%.*s".
int width(std::string_view text) noexcept { return static_cast<int>(text.size()); }
const char* start(std::string_view text) noexcept { return text.data() ? text.data() : ""; }

// The simple reading of challenges

/// Calls `use` with name and value of each parameter behind the scheme word. Values stay as they stand in quotes.
template <class Use>
void for_each_parameter(const char* text, Use use) noexcept {
    const char* rest = text + std::min(scheme_length, std::strlen(text));
    while (*(rest += std::strspn(rest, ", ")) != '\0') {
        const char* const name_end = rest + std::strcspn(rest, ",=");
        const char* const end = *name_end == '=' ? auth::end_of_quoted(name_end + 1) : nullptr;
        if (end && auth::ends_element(end + 1)) {
            use(std::string_view(rest, name_end), std::string_view(name_end + 2, end));
            rest = end + 1 + std::strcspn(end + 1, ",");
            continue;
        }
        scan::pair parameter = scan::split({rest, std::strcspn(rest, ",")}, '=');
        rest += std::strcspn(rest, ",");
        std::string_view& value = parameter.value;
        // A closing quote is taken for granted, whatever stands there.
        if (value.starts_with('"')) value = value.substr(1, std::max<size_t>(value.size(), 2) - 2);
        if (parameter.has_value) use(parameter.key, value);
    }
}

/// A name is known when it is the beginning of one of these; the first counts.
template <class Known, size_t size>
const Known* find_parameter(const Known (&known)[size], std::string_view name) noexcept {
    const Known* found = std::ranges::find_if(known, [&](const Known& each) { return each.name.starts_with(name); });
    return found == std::end(known) ? nullptr : found;
}

struct challenge {
    std::optional<std::string_view> nonce;
    std::optional<std::string_view> realm;
    std::optional<std::string_view> qop;
    std::optional<std::string_view> opaque;
};

struct challenge_parameter {
    std::string_view name;
    std::optional<std::string_view> challenge::*field;
};
constexpr challenge_parameter challenge_parameters[] = {
    {"nonce", &challenge::nonce},
    {"realm", &challenge::realm},
    {"qop", &challenge::qop},
    {"opaque", &challenge::opaque},
};

struct answer_parameter {
    std::string_view name;
    char* authenticate_ctx::*field;
};
constexpr answer_parameter answer_parameters[] = {
    {"nonce", &authenticate_ctx::nonce},       {"realm", &authenticate_ctx::realm},
    {"response", &authenticate_ctx::response}, {"username", &authenticate_ctx::username},
    {"uri", &authenticate_ctx::uri},
};

/// @return not set when the challenge has no realm or no nonce.
std::optional<challenge> read_challenge(const char* text) noexcept {
    challenge read;
    for_each_parameter(text, [&](std::string_view name, std::string_view value) {
        if (const auto* known = find_parameter(challenge_parameters, name)) read.*known->field = value;
    });
    if (!read.realm || !read.nonce) return std::nullopt;
    // Of a list the one that is answered, a single one as it was received.
    constexpr std::string_view plain = "auth";
    if (read.qop && read.qop->find(',') != std::string_view::npos && auth::lists(*read.qop, plain)) read.qop = plain;
    return read;
}

// Answers

/// What a client answers with; null texts are empty.
struct client {
    std::string_view user;
    std::string_view password;
    std::string_view method;
    std::string_view uri;
};

enum class scheme_t : uint8_t { none, basic, digest };

scheme_t scheme_of(std::string_view challenge) noexcept {
    if (challenge.find("Basic") != std::string_view::npos) return scheme_t::basic;
    return challenge.find("Digest") != std::string_view::npos ? scheme_t::digest : scheme_t::none;
}

const char* challenge_or_basic(const char* challenge) noexcept { return challenge ? challenge : "Basic "; }

char* basic_value(std::string_view user, std::string_view password, const char* file, int line) noexcept {
    const owned_text pair = auth::join({user, password});
    const owned_text coded(pair ? b64(pair.get(), std::strlen(pair.get()), CORE_HERE) : nullptr);
    return coded ? core_sprintf(file, line, "Basic %s", coded.get()) : nullptr;
}

char* digest_value(const client& who, const challenge& to, const char* response, const char* tail, const char* file,
                   int line) noexcept {
    return core_sprintf(
        file, line, R"(Digest username="%.*s", realm="%.*s", nonce="%.*s", uri="%.*s", response="%s", algorithm=MD5%s)",
        width(who.user), start(who.user), width(*to.realm), start(*to.realm), width(*to.nonce), start(*to.nonce),
        width(who.uri), start(who.uri), response, tail);
}

char* answer_without_qop(const client& who, const challenge& to, const char* file, int line) noexcept {
    const auth::hex_t response =
        auth::digest_response({who.user, who.password, *to.realm, *to.nonce, who.method, who.uri, {}, {}, {}});
    return response ? digest_value(who, to, response.text, "", file, line) : nullptr;
}

char* answer_with_qop(const client& who, const challenge& to, const char* file, int line) noexcept {
    const owned_text cnonce(common_srand(cnonce_length, CORE_HERE));
    if (!cnonce) return nullptr;
    const auth::hex_t response = auth::digest_response(
        {who.user, who.password, *to.realm, *to.nonce, who.method, who.uri, to.qop, nonce_count, cnonce.get()});
    const std::string_view opaque = to.opaque.value_or("");
    const owned_text tail(core_sprintf(CORE_HERE, R"(, opaque="%.*s", cnonce="%s", qop=%.*s, nc=%s)", width(opaque),
                                       start(opaque), cnonce.get(), width(*to.qop), start(*to.qop),
                                       nonce_count.data()));
    return response && tail ? digest_value(who, to, response.text, tail.get(), file, line) : nullptr;
}

char* digest_answer(const client& who, const char* text, bool with_qop, const char* file, int line) noexcept {
    const std::optional<challenge> to = read_challenge(text);
    if (!to) return nullptr;
    return to->qop && with_qop ? answer_with_qop(who, *to, file, line) : answer_without_qop(who, *to, file, line);
}

/// Appends a field unless there is no value for it.
int put_answer(header_s* header, const char* name, const char* value) noexcept {
    return value ? http_header_put(header, name, value) : 0;
}

// The strict reading of answers, for those who decide by them

struct credentials {
    std::optional<std::string_view> username;
    std::optional<std::string_view> realm;
    std::optional<std::string_view> nonce;
    std::optional<std::string_view> uri;
    std::optional<std::string_view> response;
    std::optional<std::string_view> algorithm;
    std::optional<std::string_view> qop;
    std::optional<std::string_view> nc;
    std::optional<std::string_view> cnonce;
};

struct credentials_parameter {
    std::string_view name;
    std::optional<std::string_view> credentials::*field;
};
constexpr credentials_parameter credentials_parameters[] = {
    {"username", &credentials::username}, {"realm", &credentials::realm},
    {"nonce", &credentials::nonce},       {"uri", &credentials::uri},
    {"response", &credentials::response}, {"algorithm", &credentials::algorithm},
    {"qop", &credentials::qop},           {"nc", &credentials::nc},
    {"cnonce", &credentials::cnonce},
};

/// Reads the parameters of a working copy; not set for anything outside the grammar, or a parameter given twice.
std::optional<credentials> read_credentials(char* text) noexcept {
    auth::reader in(text);
    credentials read;
    for (;;) {
        in.skip(" \t,");
        if (in.ends()) return read;
        const std::optional<auth::parameter_t> parameter = in.parameter();
        if (!parameter) return std::nullopt;
        for (const auto& known : credentials_parameters) {
            if (!scan::same_name(known.name, parameter->name)) continue;
            if (read.*known.field) return std::nullopt;
            read.*known.field = parameter->value;
        }
        in.skip(auth::blanks);
        if (!in.ends() && *in.at() != ',') return std::nullopt;
    }
}

/// What follows the scheme word, which is compared without case; null when it is another scheme.
const char* behind_scheme(const char* value, const char* scheme) noexcept {
    const size_t length = std::strlen(scheme);
    if (core_strncasecmp(value, scheme, length) != 0 || value[length] != ' ') return nullptr;
    return value + length + std::strspn(value + length, " ");
}

/// The path of an absolute URI; another target as it is.
std::string_view path_of(std::string_view target) noexcept {
    const size_t mark = target.find("://");
    if (mark == std::string_view::npos || target.starts_with('/')) return target;
    const size_t path = target.find('/', mark + 3);
    return path == std::string_view::npos ? "/" : target.substr(path);
}

/// Proxies turn one form of a target into the other (RFC 2617, 3.2.2.5); two absolute ones have to be equal.
bool same_target(std::string_view a, std::string_view b) noexcept {
    if (a == b) return true;
    const bool one_is_a_path = a.starts_with('/') != b.starts_with('/');
    return one_is_a_path && path_of(a) == path_of(b);
}

/// Whether the answer is one that can be checked here at all.
bool is_usable(const credentials& given) noexcept {
    if (!given.username || !given.realm || !given.nonce || !given.uri || !given.response) return false;
    if (given.algorithm && !scan::same_name(*given.algorithm, "MD5")) return false;
    return !given.qop || (*given.qop == "auth" && given.nc && given.cnonce);
}

}  // namespace

char* net_http_authenticate(const char* user, const char* password, const char* method, const char* uri,
                            const char* challenge, const char* file, int line) noexcept {
    const client who{scan::text(user), scan::text(password), scan::text(method), scan::text(uri)};
    const char* const text = challenge_or_basic(challenge);
    switch (scheme_of(text)) {
        case scheme_t::basic:
            return basic_value(who.user, who.password, file, line);
        case scheme_t::digest:
            return digest_answer(who, text, true, file, line);
        case scheme_t::none:
            break;
    }
    return nullptr;
}

int http_header_authenticate_base(header_s* header, const char* user, const char* password) noexcept {
    const owned_text value(basic_value(scan::text(user), scan::text(password), CORE_HERE));
    return put_answer(header, "Authorization", value.get());
}

int http_header_authorize(header_s* request, const header_s* refusal, const char* user, const char* password) noexcept {
    auth::challenge asked;
    if (!request || !refusal || !asked.take(refusal)) return 0;
    const std::string_view uri = scan::text(request->uri);
    const owned_text target(core_sprintf(CORE_HERE, "%s%.*s", uri.starts_with('/') ? "" : "/", width(uri), start(uri)));
    if (!target) return 0;
    const owned_text value =
        asked.answer(scan::text(user), scan::text(password), scan::text(request->method), target.get());
    return value && http_header_put(request, "Authorization", value.get()) ? 1 : 0;
}

int http_header_authenticate(header_s* header, const char* user, const char* password, const char* method,
                             const char* uri, const char* challenge) noexcept {
    const client who{scan::text(user), scan::text(password), scan::text(method), scan::text(uri)};
    const char* const text = challenge_or_basic(challenge);
    const scheme_t scheme = scheme_of(text);
    if (scheme == scheme_t::basic) return http_header_authenticate_base(header, user, password);
    if (scheme == scheme_t::none) return 0;
    const owned_text value(digest_answer(who, text, false, CORE_HERE));
    return put_answer(header, "Proxy-Authorization", value.get());
}

authenticate_ctx* net_http_authenticate_parse(const char* value, const char* file, int line) noexcept {
    if (!value || !std::strstr(value, "Digest")) return nullptr;
    auto* ctx = core::create<authenticate_ctx>(file, line);
    if (!ctx) return nullptr;
    bool complete = true;
    for_each_parameter(value, [&](std::string_view name, std::string_view text) {
        const auto* known = find_parameter(answer_parameters, name);
        if (!known) return;
        char*& field = ctx->*known->field;
        core_mfree(field);
        field = core_strndup(text.data(), text.size(), file, line);
        complete = complete && field;
    });
    if (complete) return ctx;
    net_http_authenticate_free(ctx);
    return nullptr;
}

void net_http_authenticate_free(authenticate_ctx* ctx) noexcept {
    if (!ctx) return;
    for (const auto& parameter : answer_parameters)
        core_mfree(ctx->*parameter.field);
    core::destroy(ctx);
}

int net_http_authenticate_check(const char* value, const char* method, const char* target, const char* user,
                                const char* password, const char* realm, const char* nonce) noexcept {
    if (!value || !method || !target || !user || !password || !realm || !nonce) return 0;
    const char* parameters = behind_scheme(value, "Digest");
    if (!parameters || std::string_view(value).size() > max_value) return 0;
    const owned_text copy(core_strdup(parameters, CORE_HERE));
    const std::optional<credentials> given = copy ? read_credentials(copy.get()) : std::nullopt;
    if (!given || !is_usable(*given) || !same_target(*given->uri, target)) return 0;
    if (*given->realm != realm || *given->nonce != nonce) return 0;

    const auth::hex_t expected = auth::digest_response({user, password, realm, nonce, method, *given->uri, given->qop,
                                                        given->nc.value_or(""), given->cnonce.value_or("")});
    if (!expected) return 0;
    const bool is_user = scan::same_secret(*given->username, user);
    return scan::same_secret(*given->response, expected) && is_user;
}

int net_http_authenticate_check_base(const char* value, const char* user, const char* password) noexcept {
    if (!value || !user || !password) return 0;
    const char* given = behind_scheme(value, "Basic");
    const owned_text expected(given ? basic_value(user, password, CORE_HERE) : nullptr);
    return expected && scan::same_secret(given, behind_scheme(expected.get(), "Basic"));
}
