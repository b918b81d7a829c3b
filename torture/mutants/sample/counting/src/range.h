#ifndef SAMPLE_COUNTING_RANGE_H
#define SAMPLE_COUNTING_RANGE_H

namespace counting {

class Range {
 public:
  Range(int low, int high) : low_(low), high_(high) {}
  int Clamp(int value, int* calls = nullptr) const;
  int Length() const;

 private:
  int low_;
  int high_;
};

int Distance(int from, int to);

}  // namespace counting

#endif
