#pragma once

#include <cassert>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

namespace gorm::cor::rr {

/// How a call ended: with a value, or with the text of an error.
template <class T>
struct Result {
    std::optional<T> value;
    std::string error;  // when there is no value
};

/// A result that is known already or is provided later, so that an operation which takes time does
/// not block the thread that it was called on. Copies refer to the same result.
/// Threads: one at a time; the results of a service: the loop of its server.
template <class T>
class [[nodiscard]] Deferred {
public:
    using Receiver = std::function<void(const Result<T>&)>;

    /// Pending: Resolve() or Fail() has to follow, once.
    Deferred() : pending_(std::make_shared<Pending>()) {}
    Deferred(T value) : value_(std::move(value)) {}

    void Resolve(T value) const { Complete(Result<T>{std::move(value), {}}); }
    void Fail(std::string error) const { Complete(Result<T>{std::nullopt, std::move(error)}); }

    /// Calls the receiver with the result, at once when it is known. One receiver.
    void Then(Receiver receiver) const {
        if (value_) {
            receiver(Result<T>{value_, {}});
        } else if (pending_->result) {
            receiver(*pending_->result);
        } else {
            pending_->receiver = std::move(receiver);
        }
    }

    /// The function's result for the value. An error stays as it is, and an exception of the
    /// function becomes one, unless the value is known already: then it is passed on.
    template <class Function>
    auto Map(Function function) const -> Deferred<std::invoke_result_t<Function, const T&>> {
        using Mapped = std::invoke_result_t<Function, const T&>;
        if (value_) {
            return Deferred<Mapped>(function(*value_));
        }
        Deferred<Mapped> mapped;
        Then([mapped, function](const Result<T>& result) {
            if (!result.value) {
                mapped.Fail(result.error);
                return;
            }
            std::optional<Mapped> value;
            std::string fault;
            try {
                value = function(*result.value);
            } catch (const std::exception& error) {
                fault = error.what();
            }
            value ? mapped.Resolve(std::move(*value)) : mapped.Fail(std::move(fault));
        });
        return mapped;
    }

private:
    struct Pending {
        std::optional<Result<T>> result;
        Receiver receiver;
    };
    void Complete(Result<T> result) const {
        assert(pending_ != nullptr && !pending_->result && "a result is provided once");
        pending_->result = std::move(result);
        if (const Receiver receiver = std::exchange(pending_->receiver, nullptr)) {
            receiver(*pending_->result);
        }
    }

    std::optional<T> value_;
    std::shared_ptr<Pending> pending_;  // null: the value is known
};

}  // namespace gorm::cor::rr
