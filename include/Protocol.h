#pragma once

#include <map>
#include <string>

#include "IPCClass.h"

namespace tavrin {

// The value classes one side can receive: class name -> creator of a fresh,
// default-constructed object ready to read its content. Each side reads
// received values through its own copy.
class Protocol {
  public:
    // Returns a new object owned by the caller: an IPCClass* passed as void*.
    using Creator = void* (*)();

    virtual ~Protocol() = default;

    void addCreator(const std::string& className, Creator creator) {
        creators[className] = creator;
    }

    // Registers T under `className`; the creator hands out the IPCClass
    // subobject so the receiver may convert the void* back to IPCClass*.
    template <typename T>
    void add(const std::string& className) {
        addCreator(className, [] { return static_cast<void*>(static_cast<IPCClass*>(new T())); });
    }

    std::map<std::string, Creator> creators;
};

}  // namespace tavrin
