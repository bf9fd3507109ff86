// What the server answers to a request: decided here, sent by a connection.
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
    std::string text;                  // the body, where it is the answer's own
    const std::string* kept = nullptr; // the body, where the content keeps it
    const Resource* file = nullptr;    // the body, where it is the range of this resource's file
    ByteRange range;

    std::string_view body() const { return kept != nullptr ? *kept : text; }
};

// `hasBody` says that the request announces a body, which no request of this server has.
Answer answerTo(const RequestHead& request, bool hasBody, const Content& content, std::uint16_t port);

// One line of text. `keeps` says whether the connection goes on.
Answer refusal(Status status, const std::string& line, bool keeps);

// The answer when a file is no longer what it was at the start.
Answer changedAnswer(const Resource& resource);

} // namespace Tavrin::SplatProgram
