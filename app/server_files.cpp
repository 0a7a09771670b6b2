#include "app/server_files.h"

#include "app/failure.h"
#include "app/secret_file.h"
#include "gateway/user_file.h"

namespace tandem::app {
namespace {

constexpr uint64_t look_every_us = 1'000'000;

}  // namespace

server_files_t::server_files_t(const server_command_t& command) : command_(command) {
    const gateway_settings_t& settings = command.gateway;
    // The watches first: what changes while a file is read is seen later.
    if (settings.users_file.empty()) {
        credentials_ = std::make_shared<shared_secret_t>(read_secret_file(command.link.secret_file));
    } else {
        users_watch_.emplace(settings.users_file);
        if (const std::string fault = read_users(); !fault.empty()) throw failure_t("--users: " + fault);
    }
    if (!settings.rules_file.empty()) rules_watch_.emplace(settings.rules_file);
    if (const std::string fault = read_rules(); !fault.empty()) throw failure_t("--rules: " + fault);
}

server_files_t::~server_files_t() {
    if (timer_ != nullptr) gateway_->loop()->ops->timer_destroy(gateway_->loop(), timer_);
}

void server_files_t::watch(std::shared_ptr<gateway_t> gateway, std::function<void(const std::string&)> say) {
    gateway_ = std::move(gateway);
    say_ = std::move(say);
    if (!users_watch_ && !rules_watch_) return;
    st_tloop_t* const loop = gateway_->loop();
    timer_ = loop->ops->timer_create(loop, &server_files_t::on_timer, look_every_us, look_every_us, this);
    if (timer_ != nullptr) loop->ops->timer_start(loop, timer_);
}

std::string server_files_t::read_users() {
    const auto users = std::make_shared<user_list_t>();
    std::string fault = read_user_file(command_.gateway.users_file, *users);
    if (fault.empty()) credentials_ = users;
    return fault;
}

std::string server_files_t::read_rules() {
    // A file without rules denies as well: somebody has emptied it, not taken it away.
    target_rules_t rules(rules_watch_ ? target_rules_t::without_rules_t::deny : target_rules_t::without_rules_t::allow);
    for (const std::string& line : command_.gateway.rules)
        rules.add(line);
    if (rules_watch_) {
        std::string text;
        std::string fault = read_text(rules_watch_->path(), text);
        if (!fault.empty()) return fault;
        fault = rules.add_all(text);
        if (!fault.empty()) return rules_watch_->path() + ", " + fault;
    }
    rules_ = std::move(rules);
    return {};
}

void server_files_t::look() {
    if (users_watch_ && users_watch_->is_changed()) {
        const std::string fault = read_users();
        if (fault.empty()) gateway_->set_credentials(credentials_);
        say_(fault.empty() ? "the users are read again" : "--users: " + fault + "; the users stay as they were");
    }
    if (rules_watch_ && rules_watch_->is_changed()) {
        const std::string fault = read_rules();
        if (fault.empty()) gateway_->set_rules(rules_);
        say_(fault.empty() ? "the rules are read again" : "--rules: " + fault + "; the rules stay as they were");
    }
}

void server_files_t::on_timer(st_tloop_t*, void*, void* user) {
    static_cast<server_files_t*>(user)->look();
}

}  // namespace tandem::app
