#pragma once

#include <string>
#include <vector>

namespace tavrin_binder {

// `text` as a JSON string, quoted, with what JSON requires escaped; bytes
// that are not printable ASCII are written as \u00XX, so that any name a
// peer chose comes out as valid JSON.
std::string jsonQuoted(const std::string& text);

// [{"pid":P},...]
std::string jsonPidObjects(const std::vector<int>& pids);

}  // namespace tavrin_binder
