// Guarded: the outermost frame of every operation a host calls into. An
// exception must never unwind into the host, which may be built with another
// runtime or none, so whatever an operation throws (std::bad_alloc from a
// picture buffer, above all) ends here: it is reported once and the host gets
// the operation's failure value instead.
#pragma once

#include <exception>
#include <memory>
#include <type_traits>
#include <utility>

namespace lumets::platform {

// Tells that the operation named what failed, and why.
using FailureReport = void (*)(const char* what, const char* why);

// Report must not throw out of a guard: a report that fails is dropped.
template <FailureReport Report>
void ReportGuarded(const char* what, const char* why) noexcept {
    try {
        Report(what, why);
    } catch (...) {
        // Nowhere left to tell it; the failure value still goes back.
    }
}

// Returns body(), or, when it throws, the value-initialised result: false,
// null, 0, or nothing for a void body.
template <FailureReport Report, typename Body>
std::invoke_result_t<Body&> Guarded(const char* what, Body&& body) noexcept {
    try {
        return body();
    } catch (const std::exception& error) {
        // Inside the handler: what() may die with the exception object.
        ReportGuarded<Report>(what, error.what());
    } catch (...) {
        ReportGuarded<Report>(what, "an exception of unknown type");
    }
    return std::invoke_result_t<Body&>();
}

// The base of a decorator that puts Guarded in front of every operation of
// Interface: it owns the real object, forwards each operation to it with
// Forward and destroys it under the guard as well.
template <FailureReport Report, typename Interface>
class CGuardedDecorator : public Interface {
  public:
    explicit CGuardedDecorator(std::unique_ptr<Interface> real) : m_real(std::move(real)) {}
    CGuardedDecorator(const CGuardedDecorator&) = delete;
    CGuardedDecorator& operator=(const CGuardedDecorator&) = delete;

  protected:
    ~CGuardedDecorator() override {
        Guarded<Report>("destroying an object", [this] { m_real.reset(); });
    }

    // (real->*operation)(arguments...) under Guarded.
    template <typename Operation, typename... Arguments>
    auto Forward(const char* what, Operation operation, Arguments... arguments) noexcept {
        return Guarded<Report>(what, [&] { return (m_real.get()->*operation)(arguments...); });
    }

  private:
    std::unique_ptr<Interface> m_real;
};

}  // namespace lumets::platform
