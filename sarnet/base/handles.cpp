#include "base/handles.h"

#include "base/log.h"

namespace sarnet {
namespace {

// kind: 8 bits, generation: 32, index: 20, and four zero bits as an aligned pointer would have.
constexpr int kIndexShift = 4;
constexpr int kIndexBits = 20;
constexpr int kGenerationShift = kIndexShift + kIndexBits;
constexpr int kKindShift = 56;
constexpr std::size_t kMaxSlots = std::size_t{1} << kIndexBits;
static_assert(sizeof(void*) == 8, "a handle needs 64 bits");

}  // namespace

HandleSlots::HandleSlots(HandleKind kind, const char* name) : kind_(kind), name_(name) {}

void* HandleSlots::encode(std::size_t index, std::uint32_t generation) const {
  const std::uintptr_t value = (std::uintptr_t{static_cast<std::uint8_t>(kind_)} << kKindShift) |
                               (std::uintptr_t{generation} << kGenerationShift) |
                               (std::uintptr_t{index} << kIndexShift);
  return reinterpret_cast<void*>(value);  // NOLINT(performance-no-int-to-ptr): never dereferenced
}

std::ptrdiff_t HandleSlots::locate(const void* handle) const {
  const auto value = reinterpret_cast<std::uintptr_t>(handle);
  const std::size_t index = (value >> kIndexShift) & (kMaxSlots - 1);
  if (index >= slots_.size()) return -1;
  const Slot& slot = slots_[index];
  if (!slot.object || encode(index, slot.generation) != handle) return -1;
  return static_cast<std::ptrdiff_t>(index);
}

void HandleSlots::complain(const char* what, const void* handle) const {
  SARNET_LOG(kError, what << ' ' << name_ << ": " << handle);
}

void* HandleSlots::add(std::shared_ptr<void> object, HandleOwner owner) {
  const common::LockGuard lock(mutex_);
  std::size_t index = slots_.size();
  if (!free_.empty()) {
    index = free_.back();
    free_.pop_back();
  } else {
    if (index >= kMaxSlots) return nullptr;
    slots_.emplace_back();
    free_.reserve(slots_.capacity());  // so that a delete never has to allocate
  }
  Slot& slot = slots_[index];
  slot.object = std::move(object);
  slot.owner = owner;
  ++slot.generation;
  return encode(index, slot.generation);
}

std::shared_ptr<void> HandleSlots::find(const void* handle) const {
  if (handle == nullptr) return nullptr;
  {
    const common::LockGuard lock(mutex_);
    if (const auto index = locate(handle); index >= 0) {
      return slots_[static_cast<std::size_t>(index)].object;
    }
  }
  complain("A handle was used that is not a live", handle);
  return nullptr;
}

std::shared_ptr<void> HandleSlots::remove(const void* handle, HandleOwner by) {
  if (handle == nullptr) return nullptr;
  const char* complaint = "A handle was deleted that is not a live";
  {
    const common::LockGuard lock(mutex_);
    if (const auto index = locate(handle); index >= 0) {
      Slot& slot = slots_[static_cast<std::size_t>(index)];
      if (slot.owner == by || by == HandleOwner::kLibrary) {
        free_.push_back(static_cast<std::uint32_t>(index));
        return std::move(slot.object);
      }
      complaint = "The program deleted a handle that it was only lent, a";
    }
  }
  complain(complaint, handle);
  return nullptr;
}

std::vector<std::shared_ptr<void>> HandleSlots::all() const {
  std::vector<std::shared_ptr<void>> objects;
  const common::LockGuard lock(mutex_);
  for (const Slot& slot : slots_) {
    if (slot.object) objects.push_back(slot.object);
  }
  return objects;
}

}  // namespace sarnet
