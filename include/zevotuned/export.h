#ifndef ZEVOTUNED_EXPORT_H
#define ZEVOTUNED_EXPORT_H

/** Marks a function as part of the library's interface. */
#define ZEVOTUNED_API __attribute__((visibility("default")))

#endif
