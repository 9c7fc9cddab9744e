// Progress indicators: how a long operation reports its progress and asks whether to stop.
//
// Operations take one as a nullable pointer that they do not own; null means that no progress is wanted and
// that nothing cancels. An indicator is called on whichever thread does the work (for transfers the HTTP
// service's callback thread), so one that drives a user interface marshals the calls itself. The operation
// decides what an exception thrown by an indicator does to it; the classes here throw none.
#pragma once

#include <limits>
#include <type_traits>

namespace corvo {

// The virtual functions stand in a fixed slot order. The base ignores everything and never cancels.
template <class T> class progress {
public:
    progress() = default;
    progress(const progress&) = delete;
    progress& operator=(const progress&) = delete;
    virtual ~progress() = default;

    // Describes what is being done.
    virtual void text(const wchar_t* /*message*/) {}

    // Declares the range that the positions to follow lie in.
    virtual void set_range(T /*start*/, T /*end*/) {}

    virtual void set(T /*position*/) {}

    // Shows or hides the indicator.
    virtual void show(bool /*visible*/) {}

    // True when the user asked to stop.
    virtual bool cancel() { return false; }
};

// Maps the range of a part of the work onto a slice of another indicator's range. The host may be null and is
// not owned.
template <class T> class global_progress : public progress<T> {
    static_assert(std::is_unsigned_v<T>);

public:
    global_progress(progress<T>* host, T target_start, T target_end) noexcept
        : m_host(host), m_target_start(target_start), m_target_end(target_end) {}

    void text(const wchar_t* message) override {
        if (m_host != nullptr) {
            m_host->text(message);
        }
    }

    // Concerns the part only: the host's range is its own.
    void set_range(T start, T end) override {
        m_start = start;
        m_end = end;
    }

    void set(T position) override {
        const T local = width(m_start, m_end);
        if (m_host == nullptr || local == 0) {
            return;
        }
        // In floating point, because the product of two large widths does not fit the positions' type.
        const double share = distance(m_start, position) / static_cast<double>(local);
        m_host->set(
            add(m_target_start, truncate(share * static_cast<double>(width(m_target_start, m_target_end)))));
    }

    void show(bool visible) override {
        if (m_host != nullptr) {
            m_host->show(visible);
        }
    }

    bool cancel() override { return m_host != nullptr && m_host->cancel(); }

private:
    static T width(T start, T end) noexcept { return end > start ? static_cast<T>(end - start) : T{0}; }

    static double distance(T from, T to) noexcept {
        return to < from ? -static_cast<double>(from - to) : static_cast<double>(to - from);
    }

    // A position outside its own range may map to one that T cannot hold. The conversion would then be
    // undefined, so the nearest one that T can hold is taken.
    static T truncate(double value) noexcept {
        if (value <= 0) {
            return 0;
        }
        constexpr T most = std::numeric_limits<T>::max();
        return value < static_cast<double>(most) ? static_cast<T>(value) : most;
    }

    static T add(T left, T right) noexcept {
        return right > std::numeric_limits<T>::max() - left ? std::numeric_limits<T>::max()
                                                            : static_cast<T>(left + right);
    }

    progress<T>* m_host;
    T m_start = 0;
    T m_end = 0;
    T m_target_start;
    T m_target_end;
};

} // namespace corvo
