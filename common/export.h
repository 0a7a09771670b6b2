#ifndef TANDEM_COMMON_EXPORT_H
#define TANDEM_COMMON_EXPORT_H

// Everything is built with hidden visibility; what programs may use is marked with this.
#define TANDEM_API __attribute__((visibility("default")))

#endif  // TANDEM_COMMON_EXPORT_H
