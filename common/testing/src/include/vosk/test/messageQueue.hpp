#pragma once

// A message queue in shared memory, as the program that drains it sees it.

#include <boost/interprocess/ipc/message_queue.hpp>

#include <stdexcept>
#include <string>
#include <vector>

namespace vosk::test {

// Takes out all that waits in the queue. All messages are of one priority.
inline std::vector<std::string> Drain(boost::interprocess::message_queue& queue) {
    std::vector<std::string> messages;
    std::string message(queue.get_max_msg_size(), '?');
    boost::interprocess::message_queue::size_type size = 0;
    unsigned int priority = 0;
    while (queue.try_receive(message.data(), message.size(), size, priority)) {
        if (priority != 0) throw std::runtime_error{"a message of another priority"};
        messages.push_back(message.substr(0, size));
    }
    return messages;
}
inline std::vector<std::string> Drain(const std::string& name) {
    boost::interprocess::message_queue queue{boost::interprocess::open_only, name.c_str()};
    return Drain(queue);
}

}  // namespace vosk::test
