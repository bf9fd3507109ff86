#include "program/serve/answer.h"

#include "program/serve/page.h"

#include <boost/beast/http/field.hpp>
#include <fmt/format.h>

#include <utility>

namespace Tavrin::SplatProgram {
namespace {

namespace http = boost::beast::http;
using http::field;

constexpr unsigned httpVersion = 11; // HTTP/1.1, also for requests of HTTP/1.0

std::string_view valueOf(const RequestHead& request, field name) {
    const auto value = request[name];
    return {value.data(), value.size()};
}

// Sets the fields of every answer. No other origin may read it, frame it or guess its type. Caches must
// revalidate, since another run serves other datasets at the same address.
void guard(Answer& answer) {
    static const std::string policy = pageContentPolicy();
    auto& head = answer.head;
    head.version(httpVersion);
    head.set("Content-Security-Policy", policy);
    head.set("X-Content-Type-Options", "nosniff");
    head.set("Referrer-Policy", "no-referrer");
    head.set("Cross-Origin-Opener-Policy", "same-origin");
    head.set("Cross-Origin-Resource-Policy", "same-origin");
    head.set(field::cache_control, "no-cache");
}

// True for requests from pages of other sites, or of another port of this machine. Browsers send this field.
bool isFromElsewhere(const RequestHead& request) {
    const auto site = request["Sec-Fetch-Site"];
    return site == "cross-site" || site == "same-site";
}

// The refusal of a request; nothing if it may be answered.
std::optional<Answer> refusalOf(const RequestHead& request, bool hasBody, std::uint16_t port) {
    const bool keeps = request.keep_alive();
    if (request.count(field::host) != 1 || !isOwnHost(valueOf(request, field::host), port)) {
        return refusal(Status::forbidden,
                       fmt::format("this server answers to http://127.0.0.1:{}/ alone", port),
                       keeps && !hasBody);
    }
    if (isFromElsewhere(request)) {
        return refusal(Status::forbidden, "this server answers to its own page alone", keeps && !hasBody);
    }
    if (request.method() != http::verb::get && request.method() != http::verb::head) {
        Answer answer =
            refusal(Status::method_not_allowed, "only GET and HEAD are answered", keeps && !hasBody);
        answer.head.set(field::allow, "GET, HEAD");
        return answer;
    }
    if (hasBody) {
        return refusal(Status::payload_too_large, "a request has no body here", false);
    }
    if (!request.target().starts_with('/')) {
        return refusal(Status::bad_request, "the target of a request begins with a slash", keeps);
    }
    return std::nullopt;
}

void setBytes(Answer& answer, const Resource& resource, const RequestHead& request) {
    const bool compressed = !resource.gzip.empty() && acceptsGzip(valueOf(request, field::accept_encoding));
    answer.kept = compressed ? &resource.gzip : &resource.bytes;
    answer.head.content_length(answer.kept->size());
    answer.head.set(field::accept_ranges, "none");
    if (!resource.gzip.empty()) {
        answer.head.set(field::vary, "Accept-Encoding");
    }
    if (compressed) {
        answer.head.set(field::content_encoding, "gzip");
    }
}

// Sets the file or a range of it. The whole file if an If-Range field names another content.
void setFile(Answer& answer, const Resource& resource, const RequestHead& request) {
    const std::uint64_t size = resource.file->stamp().size;
    RangeRequest asked;
    const bool isSameContent =
        request.count(field::if_range) == 0 || request[field::if_range] == resource.tag;
    if (request.method() == http::verb::get && request.count(field::range) == 1 && isSameContent) {
        asked = parseRange(valueOf(request, field::range), size);
    }
    answer.head.set(field::accept_ranges, "bytes");
    if (asked.kind == RangeRequest::Kind::outside) {
        answer.head.result(Status::range_not_satisfiable);
        answer.head.set(field::content_range, fmt::format("bytes */{}", size));
        answer.head.content_length(0);
        return;
    }
    answer.file = &resource;
    answer.range = {0, size};
    if (asked.kind == RangeRequest::Kind::part) {
        answer.range = asked.range;
        answer.head.result(Status::partial_content);
        answer.head.set(field::content_range, fmt::format("bytes {}-{}/{}", asked.range.first,
                                                          asked.range.first + asked.range.count - 1, size));
    }
    answer.head.content_length(answer.range.count);
}

// The compressed form of a text has a tag of its own.
std::string tagFor(const Resource& resource, const RequestHead& request) {
    const bool compressed = !resource.gzip.empty() && acceptsGzip(valueOf(request, field::accept_encoding));
    return compressed ? resource.tag.substr(0, resource.tag.size() - 1) + "-gzip\"" : resource.tag;
}

} // namespace

Answer refusal(Status status, const std::string& line, bool keeps) {
    Answer answer;
    guard(answer);
    answer.text = line + "\n";
    answer.head.result(status);
    answer.head.set(field::content_type, "text/plain; charset=utf-8");
    answer.head.content_length(answer.text.size());
    answer.head.keep_alive(keeps);
    return answer;
}

Answer changedAnswer(const Resource& resource) {
    return refusal(
        Status::service_unavailable,
        fmt::format("{} was written to since plyconvert view began: start it again", resource.name), false);
}

// The answer to an acceptable request for this resource.
static Answer answerWith(const Resource& resource, const RequestHead& request) {
    if (resource.file && !resource.file->isUnchanged()) {
        return changedAnswer(resource);
    }
    Answer answer;
    guard(answer);
    answer.head.keep_alive(request.keep_alive());
    const std::string tag = tagFor(resource, request);
    answer.head.set(field::etag, tag);
    if (request.count(field::if_match) > 0 && !namesTag(valueOf(request, field::if_match), tag, false)) {
        answer.head.result(Status::precondition_failed);
        answer.head.content_length(0);
    } else if (namesTag(valueOf(request, field::if_none_match), tag, true)) {
        answer.head.result(Status::not_modified);
    } else {
        answer.head.set(field::content_type, resource.type);
        resource.file ? setFile(answer, resource, request) : setBytes(answer, resource, request);
    }
    return answer;
}

Answer answerTo(const RequestHead& request, bool hasBody, const Content& content, std::uint16_t port) {
    const std::string_view target(request.target().data(), request.target().size());
    std::optional<Answer> refused = refusalOf(request, hasBody, port);
    const Resource* const resource = refused ? nullptr : content.find(target.substr(0, target.find('?')));
    if (!refused && resource == nullptr) {
        refused = refusal(Status::not_found, "there is nothing of this name here", request.keep_alive());
    }
    Answer answer = refused ? std::move(*refused) : answerWith(*resource, request);
    if (request.method() == http::verb::head) {
        answer.text.clear();
        answer.kept = nullptr;
        answer.file = nullptr;
    }
    return answer;
}

} // namespace Tavrin::SplatProgram
