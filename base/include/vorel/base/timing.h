#pragma once

#include <chrono>
#include <cstdint>

#include <vorel/base/logging.h>

namespace vorel::base {

/// A stopwatch over std::chrono::steady_clock. Wrong use (stopping a timer that isn't running,
/// restarting one, reading a running one) is never fatal: it logs a warning and carries on.
class Timer {
public:
    enum class State : std::int32_t { pending = 0, running = 1, paused = 2, finished = 3 };

    explicit Timer(bool startNow = false) {
        if (startNow) {
            startTime = now();
            state = State::running;
        }
    }

    /// Starts (or, with a warning, restarts) the timer. The accumulated time is kept.
    void start() {
        if (state == State::running || state == State::finished) {
            VOREL_LOG(warn, "Timer start called on a running or finished timer, restarting timer");
        }
        startTime = now();
        state = State::running;
    }

    /// Holds a running timer, adding the stretch since the last start. Returns false (with no
    /// change) when the timer isn't running.
    bool pause() {
        if (state != State::running) {
            return false;
        }
        accumulate();
        state = State::paused;
        return true;
    }

    /// Stops the timer. True if this call stopped it; a pending or finished timer only warns.
    bool stop() {
        switch (state) {
            case State::running:
                accumulate();
                state = State::finished;
                return true;
            case State::paused:
                // elapsed is already up to date: the paused stretch is not time measured.
                state = State::finished;
                return true;
            case State::pending:
            case State::finished:
                break;
        }
        VOREL_LOG(warn, "Timer stop called on a non running timer, doing nothing");
        return false;
    }

    /// The measured time in milliseconds; a running timer's current stretch is not included.
    double duration() const {
        if (state == State::running || state == State::pending) {
            VOREL_LOG(warn,
                      "Timer duration called on a running or pending timer, value may not be what "
                      "you expect.  Consider calling stop() first");
        }
        return elapsed * 1000.0;
    }

    State currentState() const { return state; }

private:
    static std::int64_t now() {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    void accumulate() {
        stopTime = now();
        elapsed += static_cast<double>(stopTime - startTime) / 1e9;
    }

    std::int64_t startTime = 0;
    std::int64_t stopTime = 0;
    double elapsed = 0.0;
    State state = State::pending;
};

}  // namespace vorel::base
