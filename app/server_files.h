#ifndef TANDEM_APP_SERVER_FILES_H
#define TANDEM_APP_SERVER_FILES_H

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/command_line.h"
#include "gateway/gateway.h"
#include "gateway/text_file.h"

namespace tandem::app {

// The files that say who may connect and where to. They are looked at every second, and what has changed is handed to
// the gateway; a file with a fault changes nothing. Loop's thread.
class server_files_t {
  public:
    // Throws failure_t when a file cannot be used at the start.
    explicit server_files_t(const server_command_t& command);
    server_files_t(const server_files_t&) = delete;
    server_files_t& operator=(const server_files_t&) = delete;
    ~server_files_t();

    std::shared_ptr<const credentials_t> credentials() const { return credentials_; }
    target_rules_t rules() const { return rules_; }
    // `say` is told what happens: one line for the user.
    void watch(std::shared_ptr<gateway_t> gateway, std::function<void(const std::string&)> say);

  private:
    std::string read_users();
    std::string read_rules();
    void look();
    static void on_timer(st_tloop_t* loop, void* timer, void* user);

    const server_command_t& command_;
    std::optional<file_watch_t> users_watch_;
    std::optional<file_watch_t> rules_watch_;
    std::shared_ptr<const credentials_t> credentials_;
    target_rules_t rules_{target_rules_t::without_rules_t::allow};
    std::shared_ptr<gateway_t> gateway_;
    std::function<void(const std::string&)> say_;
    void* timer_ = nullptr;
};

}  // namespace tandem::app

#endif  // TANDEM_APP_SERVER_FILES_H
