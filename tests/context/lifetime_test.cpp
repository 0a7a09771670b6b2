#include <future>
#include <thread>

#include "tests/context/fixture.h"

namespace {

using lifetimes = linked;
using packet_ptr = std::shared_ptr<tandem::packet_t>;

TEST_F(lifetimes, force_close_from_another_thread_waits_for_the_loops_callbacks_and_deletes_once) {
    authorise();
    std::promise<void> closing;
    std::thread closer;
    probe_->on_packet = [&]() -> packet_ptr {
        // Only a callback under the loop's section keeps the other thread off the timer.
        loop_.hold([&] {
            closer = std::thread([&] {
                closing.set_value();
                probe_->force_close();
            });
            closing.get_future().wait();
            EXPECT_EQ(timers(), 1u);
        });
        return nullptr;
    };
    fake::deliver(connection_, 5, frame("x"));
    closer.join();
    EXPECT_EQ(timers(), 0u);
    probe_->force_close();
    probe_->start_status_timer();
    EXPECT_EQ(timers(), 0u);
    EXPECT_EQ(connection_->deletions, 1);
}

TEST_F(lifetimes, a_context_may_outlive_its_link_or_do_without) {
    {
        tandem::link_t link;
        link.register_connection_context_factory(
            [this](void*, void*, const std::string&) { return probe_ = std::make_shared<probe_t>(); });
        ASSERT_EQ(link.create(options_, nullptr), 0);
        connection_ = fake::connect("tndm");
        fake::establish(connection_);
        fake::deliver(connection_, 1, marker + acknowledged);
        ASSERT_EQ(fake::made_loop()->count(fake::watcher_t::timer), 1u);
    }
    EXPECT_EQ(fake::made_loop(), nullptr);
    EXPECT_EQ(probe_.use_count(), 1);
    fake::clear_calls();
    probe_->force_close();
    tandem::packet_t packet(0);
    packet.pack_nil();
    EXPECT_EQ(probe_->send_packet(0, packet, 0), -1);
    probe_->start_status_timer();
    probe_.reset();
    EXPECT_EQ(fake::count_calls("delete_connection"), 0);

    // One without any link takes its timer with it.
    fake::connection_t* c = fake::connect("tndm", fake::make_instance(true));
    {
        probe_t alone;
        alone.reset(c->instance, c, loop_.handle(), 1000, "tndm");
        alone.start_status_timer();
        alone.start_status_timer();
        EXPECT_EQ(timers(), 1u);
    }
    EXPECT_EQ(timers(), 0u);
    EXPECT_EQ(c->deletions, 1);
}

TEST_F(lifetimes, a_context_may_be_dropped_and_the_link_destroyed_from_a_handler) {
    connect();
    std::weak_ptr<probe_t> watched = probe_;
    probe_->on_packet = [&] {
        fake::disconnect(connection_);
        probe_.reset();
        return std::make_shared<tandem::packet_t>(0);
    };
    fake::deliver(connection_, 5, frame("a") + frame("b"));
    EXPECT_TRUE(watched.expired());

    start_over();
    int packets = 0;
    probe_->on_packet = [&]() -> packet_ptr {
        if (++packets == 1) link_.destroy();
        return nullptr;
    };
    fake::deliver(connection_, 5, frame("a") + frame("b"), true);
    EXPECT_EQ(packets, 2);
    EXPECT_EQ(fake::count_calls("destroy_instance"), 1);
}

TEST_F(lifetimes, callbacks_of_an_instance_that_is_going_find_no_link_and_do_nothing) {
    options_.transport_calculate_param = 1;
    connect();
    link_.destroy();
    EXPECT_EQ(probe_->take_log(), strings{"stop_status_timer"});
    fake::clear_calls();
    fake::deliver(connection_, 5, frame("x"));
    fake::fire_writable(connection_, 5);
    fake::disconnect(connection_);
    connection_->instance->client.statistics(connection_->instance, connection_, 1, 2, 3, 4, 5);
    tandem::link_t::tndm_problem(connection_->instance, 1, "late");
    EXPECT_TRUE(probe_->take_log().empty());
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(lifetimes, contexts_of_an_earlier_instance_are_not_found_by_the_next) {
    authorise();
    const auto old = probe_;
    link_.destroy();
    EXPECT_EQ(old.use_count(), 3);
    ASSERT_EQ(link_.create(options_, loop_.handle()), 0);
    EXPECT_EQ(old.use_count(), 2);
    // The new instance happens to use the old handle again.
    connection_->instance = fake::instance();
    fake::establish(connection_);
    EXPECT_NE(probe_, old);
    EXPECT_FALSE(probe_->is_authorized());
}

TEST_F(lifetimes, a_create_that_fails_at_any_step_leaves_nothing_behind) {
    for (const std::string step :
         {"tloop_create", "tndm_create_instance", "tndm_open_socket", "tndm_start_server", "tndm_start_client"}) {
        for (const bool own_loop : {true, false}) {
            if (!own_loop && step == "tloop_create") continue;
            fake::reset();
            fake::fail(step);
            options_.is_server = step == "tndm_start_client" ? 0 : 1;
            EXPECT_EQ(link_.create(options_, own_loop ? nullptr : loop_.handle()), -1) << step;
            link_.destroy();
            EXPECT_EQ(fake::made_loop(), nullptr) << step;
            EXPECT_EQ(fake::count_calls("create_instance"), step == "tloop_create" ? 0 : 1);
            EXPECT_EQ(fake::instance() != nullptr, fake::count_calls("destroy_instance") == 1) << step;
            EXPECT_EQ(fake::count_calls("close_socket"), step == "tndm_start_server" ? 1 : 0);
        }
    }
    fake::reset();
    EXPECT_EQ(link_.create(options_, nullptr), 0) << "it may be tried again";
}

TEST_F(lifetimes, an_own_loops_callback_may_destroy_the_link_itself) {
    auto link = std::make_unique<tandem::link_t>();
    ASSERT_EQ(link->create(options_, nullptr), 0);
    EXPECT_EQ(fake::calls().front(), "tloop_create libev 0 100000 0");
    st_tloop_t* loop = fake::made_loop()->handle();
    const auto destroy = [](st_tloop_t*, void*, void* user) { static_cast<decltype(link)*>(user)->reset(); };
    void* async = loop->ops->async_create(loop, destroy, &link);
    loop->ops->async_start(loop, async);
    loop->ops->async_send(loop, async);
    // The loop's thread frees it on its way out.
    fake::wait_for_made_loops();
    EXPECT_EQ(link, nullptr);
    tandem::link_t::tndm_instance_loop(nullptr);
}

}  // namespace
