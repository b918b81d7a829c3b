// The last call that a caller's slots get.
#ifndef TARV_SRC_SLOT_RELEASE_H
#define TARV_SRC_SLOT_RELEASE_H

namespace tarv::details {

// Calls `release` with `user_data`, unless it is null. What it throws becomes an error line: it
// runs while an object is destroyed, where nobody can catch it.
void CallRelease(void (*release)(void* user_data), void* user_data) noexcept;

}  // namespace tarv::details

#endif  // TARV_SRC_SLOT_RELEASE_H
