// What verbs take in: parameters, files, standard input.
#ifndef TARVCTL_INPUT_H
#define TARVCTL_INPUT_H

#include <cw/encodable_value.h>

#include <string>

#include "request.h"

namespace tarvctl {

// The whole file; standard input for "-". Throws UsageError.
std::string ReadAll(const std::string& path);

// The request's PARAMS, with its --bytes added; null when there is neither. Throws UsageError.
cw::EncodableValue ReadParams(const Request& request);

}  // namespace tarvctl

#endif  // TARVCTL_INPUT_H
