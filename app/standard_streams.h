#ifndef TANDEM_APP_STANDARD_STREAMS_H
#define TANDEM_APP_STANDARD_STREAMS_H

#include <cstdio>
#include <string>

namespace tandem::app {

// Makes sure that descriptors 0 to 2 are open, so that no socket or file of ours ever gets one of these numbers.
void open_standard_descriptors();

// The program's own standard output and standard error. The library prints its messages on standard output: while this
// exists, descriptor 1 leads to the log file, or to standard error without one, and with a log file descriptor 2 leads
// there too.
class standard_streams_t {
  public:
    // `log_file`: appended to, made when missing; empty: none. Throws failure_t.
    explicit standard_streams_t(const std::string& log_file);
    standard_streams_t(const standard_streams_t&) = delete;
    standard_streams_t& operator=(const standard_streams_t&) = delete;
    ~standard_streams_t();

    // Where the user reads; line-buffered.
    FILE* out() const { return out_; }
    FILE* err() const { return err_; }

  private:
    FILE* out_;
    FILE* err_;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_STANDARD_STREAMS_H
