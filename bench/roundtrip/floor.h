// The floors: what a plain socket and Qt alone take for the same work.
#ifndef BENCH_ROUNDTRIP_FLOOR_H
#define BENCH_ROUNDTRIP_FLOOR_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace bench {

// In a child: its end of the socket pair.
constexpr int kChildFd = 3;

// This program once more, as "bench_floors --child ARGUMENT...", with a socket to it. Dies with its
// parent.
class Child {
 public:
  explicit Child(const std::vector<std::string>& arguments);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t Process() const { return process_; }
  int Socket() const { return socket_; }

 private:
  pid_t process_ = -1;
  int socket_ = -1;
};

// Whole blocks over a blocking socket; false at its end.
bool ReadAll(int socket, void* data, std::size_t size);
bool WriteAll(int socket, const void* data, std::size_t size);

// A program that was built beside this one.
std::string Beside(const std::string& program);

int RunRawChild(const std::string& mode, std::size_t size);
void MeasureRawLatency();
void MeasureRawPipeline();
void MeasureRawLarge();

int RunQtChild(int argc, char** argv);
void MeasureQtLatency();
void MeasureQtPipeline();
void MeasureQtNotifications();
void MeasureQtLarge();

void MeasureBareStarts();

}  // namespace bench

#endif  // BENCH_ROUNDTRIP_FLOOR_H
