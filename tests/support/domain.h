// A domain for one test: a controller's directory (controller.py), and SSSD as the service that has joined it
// (domain.py), in the view that the test runs in.
#pragma once

#include "tests/support/directory.h"

#include <string>
#include <vector>

class Domain
{
    TempDir folder_;

public:
    static bool CanStart(); // whether SSSD was fetched and the machine has a slapd

    // Options as controller.py has them.
    explicit Domain(const std::vector<std::string>& options = {});
    ~Domain();
    Domain(const Domain&) = delete;
    Domain& operator=(const Domain&) = delete;
    StartedServer server;

    // SSSD takes connections and says nothing, until it goes on.
    void Pause(bool paused) const;
    void KillClient() const;     // SSSD
    void KillController() const; // SSSD has nobody to ask any more

    // The lines of the settings file with which it is used.
    [[nodiscard]] std::string SettingsLines() const;
    [[nodiscard]] std::string Uri() const { return "ldap://127.0.0.1:" + std::to_string(server.Port(0)); }
    [[nodiscard]] std::string CaFile() const { return folder_.Path("d/ca.pem"); }

private:
    void Signal(int signal) const; // to SSSD and its children
};
