#include "Companions/NetworkClient/Responses.h"

#include <algorithm>

namespace Quorvalen::Companions::Network {
namespace {

constexpr std::size_t kKeptCapacity = std::size_t{64} * 1024;

}  // namespace

thread_local std::vector<Responses::Slot> Responses::slots;

std::vector<unsigned char>& Responses::Begin() {
    Slot& slot = ThreadsSlot();
    slot.present = false;
    return slot.bytes;
}

void Responses::Keep() {
    ThreadsSlot().present = true;
}

const std::vector<unsigned char>* Responses::Find() {
    const Slot* slot = FindSlot();
    return slot == nullptr || !slot->present ? nullptr : &slot->bytes;
}

void Responses::Forget() {
    Slot* slot = FindSlot();
    if (slot == nullptr) return;
    slot->present = false;
    if (slot->bytes.capacity() > kKeptCapacity) slot->bytes = std::vector<unsigned char>();
}

Responses::Slot* Responses::FindSlot() const {
    const auto found = std::find_if(slots.begin(), slots.end(), [this](const Slot& slot) {
        return !slot.owner.owner_before(identity) && !identity.owner_before(slot.owner);
    });
    return found == slots.end() ? nullptr : &*found;
}

Responses::Slot& Responses::ThreadsSlot() {
    Slot* found = FindSlot();
    if (found != nullptr) return *found;
    std::erase_if(slots, [](const Slot& slot) { return slot.owner.expired(); });
    return slots.emplace_back(Slot{identity, {}, false});
}

}  // namespace Quorvalen::Companions::Network
