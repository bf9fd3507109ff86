// The server's answers. This file decides them; a connection sends them.
#pragma once

#include "program/serve/content.h"
#include "program/serve/http_rules.h"

#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>

#include <cstdint>
#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {

using RequestHead = boost::beast::http::request<boost::beast::http::empty_body>;
using Status = boost::beast::http::status;

struct Answer {
    boost::beast::http::response<boost::beast::http::empty_body> head;
    std::string text;                  // the body, if the answer owns it
    const std::string* kept = nullptr; // the body, if the content owns it
    const Resource* file = nullptr;    // the body is `range` of this resource's file
    ByteRange range;

    std::string_view body() const { return kept != nullptr ? *kept : text; }
};

// The answer to a request. `hasBody`: the request announces a body, which this server refuses. `port` is the
// server's.
Answer answerTo(const RequestHead& request, bool hasBody, const Content& content, std::uint16_t port);

// An answer with this status and one line of text. `keeps`: the connection stays open.
Answer refusal(Status status, const std::string& line, bool keeps);

// The answer when a file has changed since the server's start.
Answer changedAnswer(const Resource& resource);

} // namespace Tavrin::SplatProgram
