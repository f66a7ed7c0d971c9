#include "coupler/binder/monitor/JsonText.h"

#include <stdio.h>

namespace tavrin_binder {

std::string jsonQuoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (byte < 0x20 || byte >= 0x7f) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            quoted += escaped;
        } else {
            quoted += c;
        }
    }
    quoted += '"';
    return quoted;
}

std::string jsonPidObjects(const std::vector<int>& pids) {
    std::string text = "[";
    for (size_t i = 0; i < pids.size(); ++i) {
        text += (i == 0 ? "{\"pid\":" : ",{\"pid\":") + std::to_string(pids[i]) + "}";
    }
    return text + "]";
}

}  // namespace tavrin_binder
