#include "stream/converter.h"

namespace corvo::stream {

converter::converter(basic& target) noexcept : m_source(target) {
    m_state = target.state();
}

std::size_t converter::read(void* data, std::size_t length) {
    const std::size_t done = m_source.read(data, length);
    m_state = m_source.state();
    return done;
}

std::size_t converter::write(const void* data, std::size_t length) {
    const std::size_t done = m_source.write(data, length);
    m_state = m_source.state();
    return done;
}

void converter::flush() {
    m_source.flush();
    m_state = m_source.state();
}

void converter::close() {
    m_source.close();
    m_state = m_source.state();
}

} // namespace corvo::stream
