// A directory with a root, settings and a port of its own, and the parameters that its requests take.
#pragma once

#include "directory/KelDirectory.h"
#include "foundation/Settings.h"
#include "rpc/values/VUtil.h"
#include "support/ReservedPort.h"
#include "support/TempRoot.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

// A listening TCP socket on a port of the loopback interface that the system picked.
class ListeningPort {
public:
    ListeningPort() : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bind(socket_, reinterpret_cast<sockaddr*>(&address), length);
        listen(socket_, 5);
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~ListeningPort() { close(socket_); }
    ListeningPort(const ListeningPort&) = delete;
    ListeningPort& operator=(const ListeningPort&) = delete;

    int socket() const { return socket_; }
    unsigned short port() const { return port_; }

private:
    int socket_;
    unsigned short port_;
};

using Services = std::vector<std::pair<const char*, const char*>>;

inline ScopedVariant Texts(const std::vector<const char*>& texts) { return VUtil::MakeListOf(texts); }

inline ScopedVariant RecordOf(const char* name, int satId, unsigned short port, const Services& services = {}) {
    ScopedVariant entries = VUtil::MakeListOf(
        services, [](const Services::value_type& service) { return VUtil::MakeList(service.first, service.second); });
    const int count = static_cast<int>(services.size());
    return VUtil::MakeList(name, "studio", port, 2, satId, count, std::move(entries));
}

class DirectoryFixture : public testing::Test {
protected:
    DirectoryFixture() {
        const CStdStr key("Software\\Tessaly\\Yar\\Config");
        CRegistry::getInstance()->WriteSettingImpl(key, "kel.directoryPort", directoryPort_.number());
        // What it announces stays on this machine.
        CRegistry::getInstance()->WriteSettingImpl(key, "kel.multicastGroup", CStdStr("127.0.0.1"));
        Restart();
    }

    void Restart() {
        directory_.reset();
        directory_ = std::make_unique<KelDirectory>();
    }

    void Init() { ASSERT_TRUE(directory_->init({"KelDirectory"})); }

    // The result of "Register".
    int Register(const tagVARIANT& record) {
        ScopedVariant out;
        return directory_->SatRegister(&record, &out, "127.0.0.1", "Tester");
    }

    int IdOf(const char* name) {
        const ScopedVariant in = MakeString(name);
        ScopedVariant out;
        return directory_->SatGetId(&in, &out, "127.0.0.1", "Tester") == 0 ? out.lVal : -1;
    }

    TempRoot root_;
    const ReservedPort directoryPort_;
    const ReservedPort closedPort_;
    const unsigned short port_ = closedPort_.number();  // where the satellites of a test are said to listen
    std::unique_ptr<KelDirectory> directory_;
};
