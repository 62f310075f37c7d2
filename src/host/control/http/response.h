// What every response of the server carries; its streams.
#pragma once

#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

#include "host/control/http/message.h"

namespace host::control::http {

namespace bhttp = boost::beast::http;

using PlainStream = boost::beast::tcp_stream;
using TlsStream = boost::beast::ssl_stream<boost::beast::tcp_stream>;

// Nothing that a page could bring with it, in case that a browser shows an answer.
inline void SetSecurityFields(bhttp::fields& fields) {
  fields.set("Content-Security-Policy",
             "default-src 'self'; media-src 'self' blob:; base-uri 'none'; frame-ancestors 'none'; "
             "form-action 'self'");
  fields.set("X-Content-Type-Options", "nosniff");
  fields.set("Referrer-Policy", "no-referrer");
  fields.set("Cross-Origin-Resource-Policy", "same-origin");
  fields.set("Cache-Control", "no-store");
}

template <typename Body>
void SetFields(bhttp::response<Body>& response, const Answer& answer) {
  response.result(static_cast<unsigned>(answer.status));
  SetSecurityFields(response);
  response.set(bhttp::field::content_type, answer.contentType);
  for (const auto& [field, value] : answer.fields) {
    response.set(field, value);
  }
}

}  // namespace host::control::http
