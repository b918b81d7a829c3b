#ifndef VELTRA_HOST_EXPORT_H
#define VELTRA_HOST_EXPORT_H

// Marks what libveltra_host.so shows to programs that link it.
#define VELTRA_HOST_EXPORT __attribute__((visibility("default")))

#endif  // VELTRA_HOST_EXPORT_H
