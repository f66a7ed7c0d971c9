#include "TranslatorSlot.h"

void TranslatorSlot::set(tavrin::ISubServiceClient* translator) {
    std::lock_guard<std::mutex> hold(mLock);
    mTranslator = translator;
}

void TranslatorSlot::clear() {
    std::lock_guard<std::mutex> hold(mLock);
    mTranslator = nullptr;
}

tavrin::tv_sp<tavrin::IPCClass> TranslatorSlot::call(tavrin::IPCClass& action) {
    std::lock_guard<std::mutex> hold(mLock);
    if (mTranslator == nullptr) return tavrin::tv_sp<tavrin::IPCClass>(nullptr);
    return mTranslator->ipcCall(action);
}
