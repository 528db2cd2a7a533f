#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/mutex.h"

namespace sarnet {

enum class HandleKind : std::uint8_t {
  kSessionSettings = 1,
  kSession,
  kPublisherSettings,
  kPublisher,
  kSubscriber,
  kStream,
  kConnection,
  kVideoFrame,
  kVideoCapturer,
};

// Who may end a handle: the program by the matching delete, or the library alone.
enum class HandleOwner { kProgram, kLibrary };

// The live handles of one kind. A handle is not an address but a slot's number, its generation and
// the kind, encoded as a pointer: one that was deleted, never existed or is of another kind is
// recognised without touching memory, logged at error level and refused. Any thread; a leaf lock is
// held for a few instructions, objects are released outside it. Allocates only when the number of
// live handles reaches a new maximum.
class HandleSlots {
 public:
  HandleSlots(HandleKind kind, const char* name);

  // Null when the table is full (a million live handles).
  void* add(std::shared_ptr<void> object, HandleOwner owner);
  // Null for null; null with a log line for a handle that is not live.
  std::shared_ptr<void> find(const void* handle) const;
  // Ends the handle. Null as with find; also, with a log line, when `by` is the program and the
  // handle is only lent to it.
  std::shared_ptr<void> remove(const void* handle, HandleOwner by);
  std::vector<std::shared_ptr<void>> all() const;

 private:
  struct Slot {
    std::shared_ptr<void> object;
    std::uint32_t generation = 0;
    HandleOwner owner = HandleOwner::kProgram;
  };

  void* encode(std::size_t index, std::uint32_t generation) const;
  // The live slot's index, or a negative number.
  std::ptrdiff_t locate(const void* handle) const REQUIRES(mutex_);
  void complain(const char* what, const void* handle) const;

  const HandleKind kind_;
  const char* const name_;
  mutable common::Mutex mutex_;
  std::vector<Slot> slots_ GUARDED_BY(mutex_);
  std::vector<std::uint32_t> free_ GUARDED_BY(mutex_);
};

// HandleSlots with types: `Object` is the class behind the C type `Opaque`.
template <class Object, class Opaque>
class HandleTable {
 public:
  HandleTable(HandleKind kind, const char* name) : slots_(kind, name) {}

  Opaque* add(std::shared_ptr<Object> object, HandleOwner owner = HandleOwner::kProgram) {
    return static_cast<Opaque*>(slots_.add(std::move(object), owner));
  }
  std::shared_ptr<Object> find(const Opaque* handle) const {
    return std::static_pointer_cast<Object>(slots_.find(handle));
  }
  std::shared_ptr<Object> remove(const Opaque* handle, HandleOwner by = HandleOwner::kProgram) {
    return std::static_pointer_cast<Object>(slots_.remove(handle, by));
  }
  std::vector<std::shared_ptr<Object>> all() const {
    std::vector<std::shared_ptr<Object>> objects;
    for (auto& object : slots_.all()) objects.push_back(std::static_pointer_cast<Object>(object));
    return objects;
  }

 private:
  HandleSlots slots_;
};

}  // namespace sarnet
