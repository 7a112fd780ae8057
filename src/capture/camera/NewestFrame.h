#pragma once

#include "TimedSample.h"

#include <functional>
#include <memory>

// Hands frames from a capture thread to a consumer queue without ever queueing late frames: at
// most one frame waits; a newer frame replaces it, and the consumer gets only the newest.
// A job already posted may run after this object is gone; it then does nothing.
class NewestFrame
{
public:
    /// Runs a job on the consumer's queue (for example the video queue's async dispatch).
    using Post = std::function<void(std::function<void()> job)>;
    /// Receives each frame on the consumer's queue.
    using Consumer = std::function<void(TimedSample frame)>;

    NewestFrame(Post post, Consumer consumer);
    ~NewestFrame();
    NewestFrame(const NewestFrame &) = delete;
    NewestFrame &operator=(const NewestFrame &) = delete;

    /// Offers a frame from the capture thread; replaces a frame the consumer has not taken yet.
    void push(TimedSample frame);
    /// Frames replaced before the consumer took them.
    long long dropped() const;
    /// Stops delivery: frames offered or waiting from now on are discarded.
    void close();

private:
    struct State;
    const Post m_post;
    const std::shared_ptr<State> m_state;
};
