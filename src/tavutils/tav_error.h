// The exception classes of the code base. tav_error does not derive from
// std::exception; callers catch it by reference and read getMsg().
#pragma once

class tav_error {
public:
    tav_error();
    explicit tav_error(const char* text);
    tav_error(const tav_error& other);
    tav_error& operator=(const tav_error& other) = delete;
    virtual ~tav_error();

    // The text itself, not a copy; may be null.
    const char* getMsg() const { return msg; }

private:
    char* msg;
};

// Thrown wherever an allocation fails, with the text "new failed".
class tav_enomem : public tav_error {
public:
    explicit tav_enomem(const char* text) : tav_error(text) {}
    tav_enomem(const tav_enomem& other) : tav_error(other) {}
    ~tav_enomem() override;
};
