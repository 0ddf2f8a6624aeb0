/*
 * The LAN channel when the process runs out of file descriptors: its
 * thread does not spin on the connection it cannot accept, and it serves
 * again once descriptors are free.
 */
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "port/posix/log/log_output.h"
#include "support/channel_fixture.h"
#include "support/lan_peer.h"

namespace it {
namespace {

int highest_open_fd()
{
    int highest = 2;
    DIR *dir = ::opendir("/proc/self/fd");
    for (dirent *entry; dir != nullptr && (entry = ::readdir(dir)) != nullptr;) {
        highest = std::max(highest, std::atoi(entry->d_name));
    }
    if (dir != nullptr) {
        ::closedir(dir);
    }
    return highest;
}

/* Lowers the descriptor limit and takes every free descriptor below it; the destructor gives all back. */
class DescriptorFamine {
public:
    DescriptorFamine()
    {
        ::getrlimit(RLIMIT_NOFILE, &saved_);
        rlimit low = saved_;
        low.rlim_cur = static_cast<rlim_t>(highest_open_fd() + 1);
        lowered_ = ::setrlimit(RLIMIT_NOFILE, &low) == 0;
        for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
            taken_.push_back(fd);
        }
    }
    ~DescriptorFamine() { end(); }
    bool lowered() const { return lowered_; }
    void end()
    {
        for (int fd : taken_) {
            ::close(fd);
        }
        taken_.clear();
        if (lowered_) {
            ::setrlimit(RLIMIT_NOFILE, &saved_);
            lowered_ = false;
        }
    }

private:
    rlimit saved_{};
    bool lowered_ = false;
    std::vector<int> taken_;
};

class LanDescriptors : public ChannelTest {};

TEST_F(LanDescriptors, ThreadDoesNotSpinWithoutDescriptorsAndServesAgainOnceTheyAreFree)
{
    start({}, {}, false);
    start_lan(0, 0, true); // a TLS handshake would wait for the accept the famine holds back
    LanPeer peer;
    ASSERT_TRUE(peer.open_socket()); // connecting later needs no new descriptor
    // The log's writer thread starts with the first line; a gateway has
    // logged long before it runs out of descriptors, so this one has too.
    ASSERT_TRUE(sf_log::flush());

    // Nothing is asserted during the famine: a failing assertion's message
    // may need a descriptor itself.
    DescriptorFamine famine;
    const bool lowered = famine.lowered();
    const bool connected = peer.connect(lan_bound_port()); // queued by the kernel; the channel cannot accept it
    const bool failed = eventually([] { return lan_stats_now().accept_failures >= 1; }, seconds(10));
    // A spinning loop turns tens of thousands of times a second; a paused
    // one turns with its poll tick (10 a second) and its retries. Load can
    // only lower the count, so the bound cannot fail a correct build.
    const UINT_T before = lan_stats_now().poll_wakeups;
    std::this_thread::sleep_for(seconds(1));
    const UINT_T turns = lan_stats_now().poll_wakeups - before;
    const UINT_T accepted = lan_stats_now().clients_accepted;
    famine.end();

    ASSERT_TRUE(lowered);
    ASSERT_TRUE(connected);
    ASSERT_TRUE(failed) << "accept never ran out of descriptors";
    RecordProperty("turns_in_one_second", std::to_string(turns));
    EXPECT_LT(turns, 100u);
    EXPECT_EQ(0u, accepted);

    ASSERT_TRUE(peer.send_line(std::string("{\"cmd\":\"auth\",\"key\":\"") + LOCAL_KEY + "\"}"));
    std::string hello;
    ASSERT_TRUE(peer.read_line(&hello, seconds(10)));
    EXPECT_EQ(std::string("{\"type\":1,\"flag\":0,\"data\":{\"gwId\":\"") + GW_ID + "\"}}", hello);
    EXPECT_EQ(1u, lan_authed_client_count());
}

} // namespace
} // namespace it
