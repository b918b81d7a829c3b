// The part that both directions share: the bound on nesting, and the warning about lost keys.
#ifndef VORPC_QT_SRC_CONVERSION_H
#define VORPC_QT_SRC_CONVERSION_H

#include <cw/codec_limits.h>
#include <quarn/escaped.h>
#include <quarn/logger.h>

#include <QString>
#include <cstddef>

namespace vorpc::qt::details {

// Bytes that are no UTF-8 and lone surrogates are replaced on the way, and so two keys may become
// one.
inline void WarnOfMergedKeys(const QString& key) {
  QUARN_LOG_WARN() << "Two keys that are not valid text became the one key \""
                   << quarn::Escaped{key.toStdString()}
                   << "\": one of their values is lost. Use keys in valid UTF-8.";
}

// One list or map (array or object) that is being converted, counted while it lives.
class Level {
 public:
  explicit Level(std::size_t& depth) : depth_(depth) { ++depth_; }
  ~Level() { --depth_; }
  Level(const Level&) = delete;
  Level& operator=(const Level&) = delete;

  // True, after an error line, when this is one level too many.
  bool IsTooDeep() const {
    if (depth_ <= cw::kMaxNesting) {
      return false;
    }
    QUARN_LOG_ERROR() << "A value that nests deeper than " << cw::kMaxNesting
                      << " lists and maps cannot be converted";
    return true;
  }

 private:
  std::size_t& depth_;
};

}  // namespace vorpc::qt::details

#endif  // VORPC_QT_SRC_CONVERSION_H
