// The lines `kovabpfctl watch` prints: one per event, readable text or one JSON object.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>

#include "kova/bpf_client.h"
#include "kova/bpf_client_events.h"

namespace kovabpfctl {

// `decoded` is the event decoded, or nullopt when it could not be (then `error` says why; records of
// ids without a name, see ClientEventName, are shown as raw bytes). `receivedMs` is the wall-clock time of its
// arrival, in milliseconds since the epoch. No trailing newline.
std::string FormatText(const Kova::Client::ClientEvent& event, const std::optional<Kova::Client::DecodedEvent>& decoded,
                       const std::string& error, int64_t receivedMs);
std::string FormatJson(const Kova::Client::ClientEvent& event, const std::optional<Kova::Client::DecodedEvent>& decoded,
                       const std::string& error, int64_t receivedMs);

// `bytes` as a JSON string, quotes included. Bytes that are not valid UTF-8 (a name cut at 15 bytes
// may end inside a character) become U+FFFD, so the output is always valid JSON.
std::string JsonString(std::string_view bytes);

// `bytes` for a terminal: printable ASCII as is, everything else as \xNN.
std::string PrintableText(std::string_view bytes);

}  // namespace kovabpfctl
