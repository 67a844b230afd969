#include <weftmap/frame/exceptions.hpp>

#include <cstring>

namespace WM {
namespace {

// Bounded copy that zero-pads and always terminates; longer texts are cut.
void copy_text(char (&message)[Exception::max_length + 1], char const* text) {
    std::strncpy(message, text, Exception::max_length);
    message[Exception::max_length] = '\0';
}

}  // namespace

Exception::Exception(char const* text) {
    copy_text(message, text);
}
Exception::Exception(std::string text) {
    copy_text(message, text.c_str());
}
Exception::Exception(std::ostringstream const& text) {
    copy_text(message, text.str().c_str());
}
Exception::Exception(boost::format const& text) {
    copy_text(message, text.str().c_str());
}
Exception::Exception(Exception const& other) {
    std::memcpy(message, other.message, sizeof message);
}

Exception& Exception::operator=(Exception const& other) {
    std::memcpy(message, other.message, sizeof message);
    return *this;
}

Exception::~Exception() = default;

Exception::operator char const*() const {
    return message;
}

void throw_error(ErrorClass error_class, char const* text) {
    switch (error_class) {
        case ErrorClass::NotEnoughPatches:
            throw ExceptionNotEnoughPatches(text);
        case ErrorClass::MemoryLimit:
            throw ExceptionMemoryLimit(text);
        case ErrorClass::General:
            break;
    }
    throw Exception(text);
}

void throw_error(ErrorClass error_class, boost::format const& text) {
    throw_error(error_class, text.str().c_str());
}

}  // namespace WM
