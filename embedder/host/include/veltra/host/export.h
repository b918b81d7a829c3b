#ifndef VELTRA_HOST_EXPORT_H
#define VELTRA_HOST_EXPORT_H

// What users of libveltra_host.so link against.
#define VELTRA_HOST_EXPORT __attribute__((visibility("default")))

#endif  // VELTRA_HOST_EXPORT_H
