// The coders that do most of Base64's work: tables, and the vector units of the CPUs that have one.
// They differ in speed only.
#ifndef QUARN_BASE64_CODERS_H
#define QUARN_BASE64_CODERS_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quarn::base64 {

// The characters, by the 6-bit numbers that they stand for.
inline constexpr char kAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// A coder works from the front, block by block, and leaves what is less than a block to the tables.
// It touches no byte outside what it is given.
struct Coder {
  const char* name;
  bool (*is_supported)();  // by the CPU that this runs on

  // Writes four characters for each three bytes. Returns how many bytes it took.
  std::size_t (*encode)(const std::uint8_t* data, std::size_t size, char* out);

  // Writes three bytes for each four characters, and stops before the first block that holds a
  // character outside the alphabet, padding included. Returns how many characters it took. `length`
  // is a multiple of four, and `out` has room for all of them.
  std::size_t (*decode)(const char* text, std::size_t length, std::uint8_t* out);
};

// All coders of this build, the fastest first. The last one, the tables, runs on every CPU.
const std::vector<Coder>& GetCoders();

// Encode of base64.h, by one coder and, for what it leaves, the tables.
void EncodeBy(const Coder& coder, const std::uint8_t* data, std::size_t size, char* out);

// DecodeGroups of base64.h, likewise.
bool DecodeGroupsBy(const Coder& coder, const char* text, std::size_t length, std::uint8_t* out);

// Decode of base64.h, likewise.
bool DecodeBy(const Coder& coder, const char* text, std::size_t length, std::uint8_t* out);

// Coders for the vector units of this architecture, the fastest first.
std::vector<Coder> GetVectorCoders();

namespace tables {

// Writes all characters, padding included.
void Encode(const std::uint8_t* data, std::size_t size, char* out);

// Decodes whole groups. False when a character is foreign.
bool DecodeGroups(const char* text, std::size_t length, std::uint8_t* out);

// Decodes the quad that ends a text, the only one in which '=' may stand: one to three bytes. False
// for a foreign character, misplaced padding, or bits left over before the padding.
bool DecodeLastQuad(const char* text, std::uint8_t* out);

}  // namespace tables

// Base64 by its definition, one character at a time. The tests compare everything else with it.
namespace reference {
void Encode(const std::uint8_t* data, std::size_t size, char* out);
bool Decode(const char* text, std::size_t length, std::uint8_t* out);
}  // namespace reference

}  // namespace quarn::base64

#endif  // QUARN_BASE64_CODERS_H
