#include "IPCString.h"

#include <android/log.h>

namespace tavrin {

void IPCString::serialization(Serialization& out) {
    if (out.writeCString(mValue.c_str()) != 0) {
        __android_log_print(ANDROID_LOG_WARN, nullptr, "writeCString fail.");
    }
}

void IPCString::deserialization(Deserialization& in) {
    const char* text = in.readCString();
    if (text != nullptr) mValue = text;
}

}  // namespace tavrin
