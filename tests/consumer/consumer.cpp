// SPDX-License-Identifier: Apache-2.0
// Posts two callables, of which one throws; the result says whether both came out as they went in.
#include <qrn.hpp>
#include <stdexcept>
#include <string_view>

int main()
{
    int calls = 0;
    qrn::event_queue queue;
    queue.post([&calls] { ++calls; });
    queue.post([] { throw std::runtime_error("thrown"); });
    if (queue.poll() != 1 || calls != 1)
        return 1;
    try {
        queue.poll();
    } catch (const std::runtime_error &error) {
        return error.what() == std::string_view("thrown") ? 0 : 2;
    }
    return 3;
}
