// Passwords through PAM. Its modules wait as long as they like and do to their process what they like, so
// this is for a process apart (apart.h), which has nothing else to do.
#pragma once

#include <stdexcept>
#include <string>

namespace tavr
{

inline constexpr char kPamService[] = "tavr-otp"; // file in a folder of services

// Why nobody knows whether it is the password, in a few words.
class PamError : public std::runtime_error
{
public:
    explicit PamError(const std::string& text) : std::runtime_error(text) {}
};

// Whether the service in this folder lets the account in with the password; where it does not, though the
// password is right, the log says why. Raises to root, without which modules cannot ask; throws PamError.
bool IsPamPassword(const std::string& folder, const std::string& name, const std::string& password);

} // namespace tavr
