#ifndef ORVO_EXPORT_H
#define ORVO_EXPORT_H

// The shared libraries build with hidden visibility; only what carries one of
// these markers is part of their dynamic interface.
#define ORVO_SUPPORT_API __attribute__((visibility("default")))
#define ORVO_NET_API __attribute__((visibility("default")))
#define KSINTF_API __attribute__((visibility("default")))

#endif
