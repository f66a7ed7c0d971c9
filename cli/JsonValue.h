#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tavrin_cli {

// A JSON value read from a carrier's dump. Any text can be parsed: what is
// not JSON, or nests deeper than a carrier ever writes, yields false, never
// a crash. Plain value type, used on one thread.
class JsonValue {
  public:
    enum class Type { kNull, kBool, kNumber, kString, kArray, kObject };

    // Parses all of `text` (surrounding white space allowed).
    static bool parse(const std::string& text, JsonValue* value);

    Type type() const { return mType; }
    bool isNull() const { return mType == Type::kNull; }
    double number(double otherwise = 0) const;
    std::string string(const std::string& otherwise = "") const;
    // Elements of an array; none for anything else.
    const std::vector<JsonValue>& elements() const;
    // A member of an object; a null value when there is none.
    const JsonValue& operator[](const std::string& key) const;

  private:
    friend class JsonParser;

    Type mType = Type::kNull;
    bool mBool = false;
    double mNumber = 0;
    std::string mString;
    std::vector<JsonValue> mElements;
    std::map<std::string, JsonValue> mMembers;
};

}  // namespace tavrin_cli
