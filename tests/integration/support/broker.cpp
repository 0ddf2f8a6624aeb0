#include "broker.h"

#include <arpa/inet.h>
#include <glob.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace it {

bool run_command(const std::string &command) { return std::system(command.c_str()) == 0; }

int free_port()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    ::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

bool port_open(int port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    const bool open = ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    ::close(fd);
    return open;
}

Broker::Broker(BrokerOptions options) : options_(std::move(options))
{
    char tmpl[] = "/tmp/sf_it_broker_XXXXXX";
    const char *made = ::mkdtemp(tmpl);
    dir_ = made != nullptr ? made : "/tmp";
}

Broker::~Broker()
{
    stop();
    if (dir_.rfind("/tmp/sf_it_broker_", 0) == 0) {
        run_command("rm -rf '" + dir_ + "'");
    }
}

bool Broker::write_config(std::string *why)
{
    port_ = free_port();
    const std::string quiet = " >>'" + dir_ + "/setup.log' 2>&1";
    std::ofstream conf(dir_ + "/mosquitto.conf");
    conf << "listener " << port_ << " 127.0.0.1\n"
         << (options_.persistence ? "persistence true\npersistence_location " + dir_ + "/\n" : "persistence false\n")
         << "log_dest file " << dir_ << "/broker.log\n"
         << "log_type all\n";
    if (::geteuid() == 0) {
        // As root mosquitto would switch to its own user, who cannot read this directory.
        conf << "user root\n";
    }
    if (!options_.user.empty()) {
        const std::string pw = dir_ + "/passwd";
        if (!run_command("touch '" + pw + "' && mosquitto_passwd -b '" + pw + "' '" + options_.user + "' '" +
                         options_.password + "'" + quiet)) {
            *why = "mosquitto_passwd failed";
            return false;
        }
        conf << "allow_anonymous false\npassword_file " << pw << "\n";
    } else {
        conf << "allow_anonymous true\n";
    }
    if (options_.deny_subscriptions) {
        // mosquitto's acl_file never refuses a SUBSCRIBE (it filters at delivery); this plugin does.
        std::ofstream(dir_ + "/dynsec.json")
            << "{\"defaultACLAccess\":{\"publishClientSend\":true,\"publishClientReceive\":true,"
               "\"subscribe\":false,\"unsubscribe\":true},\"clients\":[],\"groups\":[],\"roles\":[]}\n";
        glob_t found{};
        const bool have = ::glob("/usr/lib/*/mosquitto_dynamic_security.so", 0, nullptr, &found) == 0;
        const std::string plugin = have ? found.gl_pathv[0] : "/usr/lib/mosquitto_dynamic_security.so";
        ::globfree(&found);
        conf << "plugin " << plugin << "\nplugin_opt_config_file " << dir_ << "/dynsec.json\n";
    }
    if (options_.max_queued_messages > 0) {
        conf << "max_queued_messages " << options_.max_queued_messages << "\n";
    }
    if (options_.tls) {
        const std::string d = "'" + dir_ + "'";
        const std::string new_key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
        const std::string make_certs =
            "cd " + d + " && openssl req -x509" + new_key + " -days 2 -subj /CN=sf-test-ca -keyout ca.key -out ca.crt" +
            quiet + " && openssl req" + new_key + " -subj /CN=localhost -keyout server.key -out server.csr" + quiet +
            " && printf 'subjectAltName=IP:127.0.0.1,DNS:localhost\\n' > san.ext"
            " && openssl x509 -req -in server.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 2"
            " -extfile san.ext -out server.crt" +
            quiet +
            " && openssl req" + new_key + " -subj /CN=gateway -keyout client.key -out client.csr" + quiet +
            " && openssl x509 -req -in client.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 2 -out client.crt" +
            quiet;
        if (!run_command(make_certs)) {
            *why = "openssl could not make the test certificates";
            return false;
        }
        conf << "cafile " << dir_ << "/ca.crt\ncertfile " << dir_ << "/server.crt\nkeyfile " << dir_
             << "/server.key\n";
        if (options_.require_client_cert) {
            conf << "require_certificate true\n";
        }
    }
    configured_ = true;
    return true;
}

bool Broker::start(std::string *why)
{
    // A restart keeps its port; a first start that loses its port to
    // another test (it was free a moment ago) tries another one.
    const bool restart = configured_;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!configured_ && !write_config(why)) {
            return false;
        }
        const bool up = launch(why);
        if (up || restart) {
            return up;
        }
        stop();
        configured_ = false;
    }
    return false;
}

bool Broker::launch(std::string *why)
{
    const std::string conf = dir_ + "/mosquitto.conf";
    pid_ = ::fork();
    if (pid_ == 0) {
        ::execlp("mosquitto", "mosquitto", "-c", conf.c_str(), static_cast<char *>(nullptr));
        ::_exit(127);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            *why = "mosquitto exited at start; see " + dir_ + "/broker.log";
            return false;
        }
        if (port_open(port_)) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    *why = "mosquitto did not open its port";
    return false;
}

void Broker::pause()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGSTOP);
    }
}

void Broker::resume()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGCONT);
    }
}

void Broker::stop(bool graceful)
{
    if (pid_ > 0) {
        ::kill(pid_, graceful ? SIGTERM : SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

} // namespace it
