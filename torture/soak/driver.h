// Runs the applications of the soak beside each other, prints what they tell, and judges.
#ifndef TORTURE_SOAK_DRIVER_H
#define TORTURE_SOAK_DRIVER_H

#include <cstdint>
#include <string>

namespace soak {

// Plays for so long with this seed. `program` is what is run as an application:
// "program --play NAME OTHER SEED SECONDS ROUND RESTLESS". Returns 0 when everything has ended where
// it began.
int Drive(const std::string& program, double seconds, std::uint64_t seed);

}  // namespace soak

#endif  // TORTURE_SOAK_DRIVER_H
