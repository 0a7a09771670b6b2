#ifndef TANDEM_APP_WATCH_OUTPUT_H
#define TANDEM_APP_WATCH_OUTPUT_H

#include <string>
#include <string_view>

#include "app/file.h"

namespace tandem::app {

// Shows one text after the other on a descriptor without ever waiting for its reader: while that has not taken all of
// an earlier text, later ones are left out. Nothing is shown any more once the reader is gone.
class watch_output_t {
  public:
    // `fd` stays the caller's and must outlive this. `in_place`: on a terminal, each text takes the place of the one
    // before and is cut to the size of the terminal.
    watch_output_t(int fd, bool in_place);
    watch_output_t(const watch_output_t&) = delete;
    watch_output_t& operator=(const watch_output_t&) = delete;

    void show(std::string_view text);
    // Somebody else has written: what stands there is left alone.
    void interrupted() { drawn_lines_ = 0; }

  private:
    bool flush();
    ssize_t write_some() const;

    int fd_;
    file_t own_;  // the same file opened again, so that not to block is our setting alone; not every file can be
    bool socket_;
    bool in_place_;
    bool broken_ = false;
    size_t drawn_lines_ = 0;
    std::string pending_;
};

// The first `rows` lines, each cut to `columns`; 0 does not cut. A last line tells how many are missing.
std::string cut_to_screen(std::string_view text, size_t rows, size_t columns);

}  // namespace tandem::app

#endif  // TANDEM_APP_WATCH_OUTPUT_H
