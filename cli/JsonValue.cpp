#include "JsonValue.h"

#include <stdlib.h>
#include <string.h>

namespace tavrin_cli {

// A recursive-descent reader over the text; every step checks the end.
class JsonParser {
  public:
    explicit JsonParser(const std::string& text) : mText(text) {}

    bool parseAll(JsonValue* value) {
        if (!parseValue(value, 0)) return false;
        skipSpace();
        return mAt == mText.size();
    }

  private:
    static constexpr int kMaxDepth = 32;

    void skipSpace() {
        while (mAt < mText.size() && strchr(" \t\r\n", mText[mAt]) != nullptr) ++mAt;
    }
    bool take(char c) {
        skipSpace();
        if (mAt < mText.size() && mText[mAt] == c) {
            ++mAt;
            return true;
        }
        return false;
    }
    bool takeWord(const char* word) {
        const size_t length = strlen(word);
        if (mText.compare(mAt, length, word) != 0) return false;
        mAt += length;
        return true;
    }

    bool parseValue(JsonValue* value, int depth) {
        if (depth > kMaxDepth) return false;
        skipSpace();
        if (mAt >= mText.size()) return false;
        const char c = mText[mAt];
        if (c == '{') return parseObject(value, depth);
        if (c == '[') return parseArray(value, depth);
        if (c == '"') {
            value->mType = JsonValue::Type::kString;
            return parseString(&value->mString);
        }
        if (takeWord("null")) return true;
        for (const bool truth : {true, false}) {
            if (takeWord(truth ? "true" : "false")) {
                value->mType = JsonValue::Type::kBool;
                value->mBool = truth;
                return true;
            }
        }
        return parseNumber(value);
    }

    bool parseNumber(JsonValue* value) {
        const char* start = mText.c_str() + mAt;
        char* end = nullptr;
        value->mNumber = strtod(start, &end);
        if (end == start) return false;
        value->mType = JsonValue::Type::kNumber;
        mAt += static_cast<size_t>(end - start);
        return true;
    }

    bool parseString(std::string* out) {
        ++mAt;  // the opening quote
        while (mAt < mText.size()) {
            const char c = mText[mAt++];
            if (c == '"') return true;
            if (c != '\\') {
                *out += c;
                continue;
            }
            if (mAt >= mText.size()) return false;
            const char escaped = mText[mAt++];
            if (escaped == 'u') {
                if (mAt + 4 > mText.size()) return false;
                const unsigned long code = strtoul(mText.substr(mAt, 4).c_str(), nullptr, 16);
                mAt += 4;
                appendUtf8(code, out);
            } else {
                const char* from = "\"\\/bfnrt";
                const char* to = "\"\\/\b\f\n\r\t";
                const char* found = strchr(from, escaped);
                if (found == nullptr || escaped == '\0') return false;
                *out += to[found - from];
            }
        }
        return false;
    }

    static void appendUtf8(unsigned long code, std::string* out) {
        if (code < 0x80) {
            *out += static_cast<char>(code);
        } else if (code < 0x800) {
            *out += static_cast<char>(0xc0 | (code >> 6));
            *out += static_cast<char>(0x80 | (code & 0x3f));
        } else {
            *out += static_cast<char>(0xe0 | (code >> 12));
            *out += static_cast<char>(0x80 | ((code >> 6) & 0x3f));
            *out += static_cast<char>(0x80 | (code & 0x3f));
        }
    }

    bool parseArray(JsonValue* value, int depth) {
        ++mAt;
        value->mType = JsonValue::Type::kArray;
        if (take(']')) return true;
        do {
            value->mElements.emplace_back();
            if (!parseValue(&value->mElements.back(), depth + 1)) return false;
        } while (take(','));
        return take(']');
    }

    bool parseObject(JsonValue* value, int depth) {
        ++mAt;
        value->mType = JsonValue::Type::kObject;
        if (take('}')) return true;
        do {
            std::string key;
            skipSpace();
            if (mAt >= mText.size() || mText[mAt] != '"' || !parseString(&key) || !take(':')) {
                return false;
            }
            if (!parseValue(&value->mMembers[key], depth + 1)) return false;
        } while (take(','));
        return take('}');
    }

    const std::string& mText;
    size_t mAt = 0;
};

bool JsonValue::parse(const std::string& text, JsonValue* value) {
    *value = JsonValue();
    return JsonParser(text).parseAll(value);
}

double JsonValue::number(double otherwise) const {
    return mType == Type::kNumber ? mNumber : otherwise;
}

std::string JsonValue::string(const std::string& otherwise) const {
    return mType == Type::kString ? mString : otherwise;
}

const std::vector<JsonValue>& JsonValue::elements() const {
    static const std::vector<JsonValue>* const kNone = new std::vector<JsonValue>();
    return mType == Type::kArray ? mElements : *kNone;
}

const JsonValue& JsonValue::operator[](const std::string& key) const {
    static const JsonValue* const kMissing = new JsonValue();
    auto member = mMembers.find(key);
    return member != mMembers.end() ? member->second : *kMissing;
}

}  // namespace tavrin_cli
