// The tasks that an application of the soak talks to, in each form that there is.
#ifndef TORTURE_SOAK_PARTNERS_H
#define TORTURE_SOAK_PARTNERS_H

#include <tarv/manager_wrapper.h>

#include <memory>
#include <random>
#include <string>

#include "ledger.h"

namespace soak {

using Random = std::mt19937_64;

// At least `least`, at most `most`.
std::int64_t Draw(Random& random, std::int64_t least, std::int64_t most);

// What all partners share.
struct Table {
  Ledger& ledger;
  Random& random;
  std::uint64_t& starts;
};

// A task, and whatever stands between it and the application. Destroyed at any moment.
class Partner {
 public:
  Partner() = default;
  virtual ~Partner();
  Partner(const Partner&) = delete;
  Partner& operator=(const Partner&) = delete;

  // Asks the task for something.
  virtual void Act() = 0;
  // Sees to it that what is open ends soon, though an answer may have been lost on its way.
  virtual void Finish() = 0;
  // False while its end would leave a task behind until the manager's end.
  virtual bool MayGo() const = 0;
};

std::unique_ptr<Partner> MakeCallerPartner(const tarv::ManagerWrapper& manager,
                                           const std::string& task, const Table& table);
std::unique_ptr<Partner> MakeKeptPartner(const tarv::ManagerWrapper& manager,
                                         const std::string& task, const Table& table);
std::unique_ptr<Partner> MakeRawPartner(const tarv::ManagerWrapper& manager,
                                        const std::string& task, const Table& table);
std::unique_ptr<Partner> MakeLockingPartner(const tarv::ManagerWrapper& manager,
                                            const std::string& task, const Table& table);

}  // namespace soak

#endif  // TORTURE_SOAK_PARTNERS_H
