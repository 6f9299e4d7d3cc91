#pragma once

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
struct Ending {
    std::optional<T> value;
    std::string error;  // when there is no value
};

/// A result that is there already, or that somebody gives later, so that a question which takes
/// time keeps nobody else waiting. Copies stand for the same result.
/// Threads: one at a time; of a service's results the loop of its server.
template <class T>
class Eventual {
public:
    using Receiver = std::function<void(const Ending<T>&)>;

    /// Not there yet: Give() or Fail() has to follow, once.
    Eventual() : later_(std::make_shared<Later>()) {}
    Eventual(T value) : now_(std::move(value)) {}

    void Give(T value) const { End(Ending<T>{std::move(value), {}}); }
    void Fail(std::string error) const { End(Ending<T>{std::nullopt, std::move(error)}); }

    /// Runs the receiver with the outcome, at once when it is there. One receiver.
    void Then(Receiver receiver) const {
        if (now_) {
            receiver(Ending<T>{now_, {}});
        } else if (later_->outcome) {
            receiver(*later_->outcome);
        } else {
            later_->receiver = std::move(receiver);
        }
    }

    /// What the function makes of the value. An error stays as it is, and an exception of the
    /// function becomes one, unless the value was there already: then it is passed on.
    template <class Function>
    auto Map(Function function) const -> Eventual<std::invoke_result_t<Function, const T&>> {
        using Mapped = std::invoke_result_t<Function, const T&>;
        if (now_) {
            return Eventual<Mapped>(function(*now_));
        }
        Eventual<Mapped> mapped;
        Then([mapped, function](const Ending<T>& outcome) {
            if (!outcome.value) {
                mapped.Fail(outcome.error);
                return;
            }
            std::optional<Mapped> value;
            std::string fault;
            try {
                value = function(*outcome.value);
            } catch (const std::exception& error) {
                fault = error.what();
            }
            value ? mapped.Give(std::move(*value)) : mapped.Fail(std::move(fault));
        });
        return mapped;
    }

private:
    struct Later {
        std::optional<Ending<T>> outcome;
        Receiver receiver;
    };
    void End(Ending<T> outcome) const {
        later_->outcome = std::move(outcome);
        if (const Receiver receiver = std::exchange(later_->receiver, nullptr)) {
            receiver(*later_->outcome);
        }
    }

    std::optional<T> now_;
    std::shared_ptr<Later> later_;  // null: the value is there
};

}  // namespace gorm::cor::rr
