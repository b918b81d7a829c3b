// Hashes a file, a slice at a time.
#ifndef CHECKSUMS_HASHER_H
#define CHECKSUMS_HASHER_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace checksums {

// The SHA-256 of the file; empty when `go_on`, which hears between slices how many bytes are done,
// returns false. Throws std::system_error for a file that cannot be read. Any thread.
std::vector<std::uint8_t> HashFile(const std::string& path,
                                   const std::function<bool(std::int64_t bytes)>& go_on);

}  // namespace checksums

#endif  // CHECKSUMS_HASHER_H
