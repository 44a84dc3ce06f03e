// One line of a configuration file: an owned copy of its text, null when empty.
#pragma once

class TString {
public:
    TString();
    explicit TString(const char* text);
    ~TString();
    TString(const TString&) = delete;
    TString& operator=(const TString&) = delete;

    TString& operator=(const char* text);

    // The text as it stands, null when empty.
    const char* c_str() const { return string; }

    // Frees the old text and stores a copy of the new one (none for null).
    // True when the string now holds text.
    bool Modify(const char* text);

    char* string;
};
