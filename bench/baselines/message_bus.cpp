#include "bench/baselines/baseline.h"

#include <dbus/dbus.h>

#include <csignal>
#include <cstdio>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace bench {
namespace {

// A bus daemon of our own, and a connection with a match rule for each subscriber, all served by one worker.
class MessageBus final : public Baseline {
public:
    explicit MessageBus(unsigned subscribers)
    {
        dbus_threads_init_default();
        StartDaemon();
        publisher_ = Connect();
        const std::string rule = "type='signal',interface='bench.States',member='Posted'";
        for (unsigned index = 0; index < subscribers; ++index) {
            DBusConnection* connection = Connect();
            dbus_bus_add_match(connection, rule.c_str(), nullptr);
            dbus_connection_flush(connection);
            dbus_connection_add_filter(connection, &MessageBus::OnMessage, this, nullptr);
            subscribers_.push_back(connection);
        }
        thread_ = std::thread([this] { Serve(); });
    }
    ~MessageBus() override
    {
        ending_ = true;
        thread_.join();
        subscribers_.push_back(publisher_);
        for (DBusConnection* connection : subscribers_) {
            dbus_connection_close(connection);
            dbus_connection_unref(connection);
        }
        kill(daemon_, SIGTERM);
        waitpid(daemon_, nullptr, 0);
    }
    void Post(const State& state) override
    {
        DBusMessage* message = dbus_message_new_signal("/states", "bench.States", "Posted");
        dbus_message_append_args(message, DBUS_TYPE_UINT32, &state.state, DBUS_TYPE_INVALID);
        dbus_connection_send(publisher_, message, nullptr);
        dbus_connection_flush(publisher_);
        dbus_message_unref(message);
    }

private:
    void StartDaemon()
    {
        int lines[2];
        if (pipe(lines) != 0) {
            throw std::runtime_error("message bus: no pipe");
        }
        daemon_ = fork();
        if (daemon_ == 0) {
            dup2(lines[1], STDOUT_FILENO);
            close(lines[0]);
            execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=1", nullptr);
            _exit(127);
        }
        close(lines[1]);
        for (char letter = 0; read(lines[0], &letter, 1) == 1 && letter != '\n';) {
            address_ += letter;
        }
        close(lines[0]);
        if (address_.empty()) {
            waitpid(daemon_, nullptr, 0);
            throw std::runtime_error("message bus: dbus-daemon does not start");
        }
    }

    DBusConnection* Connect()
    {
        DBusConnection* connection = dbus_connection_open_private(address_.c_str(), nullptr);
        if (connection == nullptr || dbus_bus_register(connection, nullptr) == FALSE) {
            throw std::runtime_error("message bus: no connection");
        }
        dbus_connection_set_exit_on_disconnect(connection, FALSE);
        return connection;
    }

    static DBusHandlerResult OnMessage(DBusConnection*, DBusMessage* message, void* self)
    {
        std::uint32_t state = 0;
        if (dbus_message_is_signal(message, "bench.States", "Posted") != FALSE &&
            dbus_message_get_args(message, nullptr, DBUS_TYPE_UINT32, &state, DBUS_TYPE_INVALID) != FALSE &&
            state == 1) {
            static_cast<MessageBus*>(self)->Count();
        }
        return DBUS_HANDLER_RESULT_HANDLED;
    }

    // Sleeps while nothing comes, so that it disturbs nothing that is measured between.
    void Serve()
    {
        std::vector<pollfd> sockets;
        for (DBusConnection* connection : subscribers_) {
            int socket = -1;
            dbus_connection_get_unix_fd(connection, &socket);
            while (dbus_connection_dispatch(connection) == DBUS_DISPATCH_DATA_REMAINS) {
            }
            sockets.push_back({.fd = socket, .events = POLLIN, .revents = 0});
        }
        constexpr int kMilliseconds = 20;  // then looks for its end
        while (!ending_) {
            poll(sockets.data(), sockets.size(), kMilliseconds);
            for (std::size_t index = 0; index < sockets.size(); ++index) {
                if (sockets[index].revents == 0) {
                    continue;
                }
                dbus_connection_read_write(subscribers_[index], 0);
                while (dbus_connection_dispatch(subscribers_[index]) == DBUS_DISPATCH_DATA_REMAINS) {
                }
            }
        }
    }

    pid_t daemon_ = -1;
    std::string address_;
    DBusConnection* publisher_ = nullptr;
    std::vector<DBusConnection*> subscribers_;
    std::atomic<bool> ending_{false};
    std::thread thread_;
};

}  // namespace

std::unique_ptr<Baseline> MakeMessageBus(unsigned subscribers)
{
    return std::make_unique<MessageBus>(subscribers);
}

}  // namespace bench
