/// Coroutines that wait for operations of Asio. They take the place of net::awaitable, whose destructor allocates
/// memory and so ends the process when there is none.
#pragma once

#include <boost/asio/async_result.hpp>
#include <boost/system/system_error.hpp>
#include <cassert>
#include <coroutine>
#include <exception>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>

namespace olmdsess {

/// A coroutine and its result. It begins to run when start() is called or another task awaits it. Its owner may destroy
/// it while it waits. Then whatever would wake it must be destroyed too, before it fires.
template <class Result>
class [[nodiscard]] Task {
  public:
    class promise_type;
    using Frame = std::coroutine_handle<promise_type>;

    explicit Task(Frame frame) noexcept : m_frame(frame) {}
    Task(Task&& other) noexcept : m_frame(std::exchange(other.m_frame, nullptr)) {}
    Task& operator=(Task&&) = delete;
    ~Task() {
        if (m_frame != nullptr) {
            m_frame.destroy();
        }
    }

    void start() const { m_frame.resume(); }
    bool isDone() const { return m_frame.done(); }
    /// What it returned, once it is done. Throws what has left it.
    Result take() const {
        assert(isDone());
        return m_frame.promise().take();
    }

    bool await_ready() const noexcept { return false; }
    /// Runs the task up to its first wait. If it has ended by then, the caller goes on at once. A loop may therefore
    /// await any number of such tasks without growing the stack, also where the compiler makes no tail calls.
    bool await_suspend(std::coroutine_handle<> caller) const {
        m_frame.resume();
        if (m_frame.done()) {
            return false;
        }
        m_frame.promise().m_caller = caller;
        return true;
    }
    Result await_resume() const { return take(); }

  private:
    Frame m_frame;
};

/// What a task without a result returns.
struct Nothing {};

/// What the compiler asks of a coroutine that returns a task.
template <class Result>
class Task<Result>::promise_type {
  public:
    Task get_return_object() noexcept { return Task(Frame::from_promise(*this)); }
    std::suspend_always initial_suspend() const noexcept { return {}; }
    auto final_suspend() const noexcept {
        struct Return : std::suspend_always {
            std::coroutine_handle<> await_suspend(Frame frame) const noexcept { return frame.promise().m_caller; }
        };
        return Return();
    }
    void return_value(Result result) { m_result.emplace(std::move(result)); }
    void unhandled_exception() noexcept { m_problem = std::current_exception(); }

  private:
    friend Task;

    Result take() {
        if (m_problem != nullptr) {
            std::rethrow_exception(m_problem);
        }
        return std::move(*m_result);
    }

    std::coroutine_handle<> m_caller = std::noop_coroutine();
    std::optional<Result> m_result;
    std::exception_ptr m_problem;
};

/// An operation of Asio that a task awaits. `Begin` begins it with the handler that it is given.
template <class Begin, class... Results>
class AsioOperation {
  public:
    explicit AsioOperation(Begin begin) : m_begin(std::move(begin)) {}

    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> task) {
        m_begin([this, task](Results... results) {
            m_results.emplace(std::move(results)...);
            task.resume();
        });
    }
    std::tuple<Results...> await_resume() { return std::move(*m_results); }

  private:
    Begin m_begin;
    std::optional<std::tuple<Results...>> m_results;
};

/// In the place of an operation's handler: `co_await socket.async_connect(address, kAwaited)` gives what the handler
/// would get, as a tuple. Throws what the beginning of the operation throws.
struct Awaited {};
inline constexpr Awaited kAwaited;

/// Throws boost::system::system_error if there is an error.
inline void throwIf(const boost::system::error_code& error) {
    if (error) {
        throw boost::system::system_error(error);
    }
}

}  // namespace olmdsess

template <class... Results>
class boost::asio::async_result<olmdsess::Awaited, void(Results...)> {
  public:
    template <class Initiation, class... Arguments>
    static auto initiate(Initiation initiation, olmdsess::Awaited, Arguments... arguments) {
        auto begin = [initiation = std::move(initiation), ... arguments = std::move(arguments)](auto handler) mutable {
            initiation(std::move(handler), std::move(arguments)...);
        };
        return olmdsess::AsioOperation<decltype(begin), std::decay_t<Results>...>(std::move(begin));
    }
};
