/* Marks what libtarv.so shows to programs that link it; everything else is hidden. */
#ifndef QUARN_EXPORT_H
#define QUARN_EXPORT_H

#define TARV_EXPORT __attribute__((visibility("default")))

#endif /* QUARN_EXPORT_H */
