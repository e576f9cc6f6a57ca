// SPDX-License-Identifier: Apache-2.0
// A queue inside an Asio loop, through the C++ interface: the descriptor is waited for like any other.
#include <asio.hpp>
#include <cstdio>
#include <thread>

#include <qrn.hpp>

namespace {

constexpr int posts = 1000;

// Dispatches one event whenever the queue's descriptor is readable, until all have run.
class pump {
public:
    pump(asio::io_context &loop, qrn::event_queue &queue, const int &ran)
        : readable_(loop, queue.descriptor()), queue_(queue), ran_(ran)
    {
    }
    ~pump() { readable_.release(); } // the descriptor is the queue's

    void wait()
    {
        readable_.async_wait(asio::posix::descriptor_base::wait_read,
                             [this](std::error_code error) {
                                 if (error)
                                     return;
                                 queue_.poll();
                                 if (ran_ < posts)
                                     wait();
                             });
    }

private:
    asio::posix::stream_descriptor readable_;
    qrn::event_queue &queue_;
    const int &ran_;
};

} // namespace

int main()
{
    qrn::event_queue queue;
    int ran = 0;
    asio::io_context loop;
    pump pump(loop, queue, ran);
    pump.wait();
    std::jthread poster([&] {
        for (int i = 0; i < posts; ++i)
            queue.post([&ran] { ++ran; });
    });
    loop.run();
    std::printf("asio: %d callbacks ran on the loop's thread\n", ran);
    return ran == posts ? 0 : 1;
}
