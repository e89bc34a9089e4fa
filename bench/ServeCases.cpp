// kelts serve under load: 50 clients at once, each asking ten Graphite
// renders of 10 minutes or a day (300 points) at places spread over the
// series of the run, against a server process on a loopback port. The rate
// is requests per second; the note gives the latencies' median and 99th
// percentile and the errors (which must be none).

#include "Cases.h"

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/StreamCopier.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <random>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace bench {

namespace {

constexpr int kClients = 50;
constexpr int kRequestsEach = 10;

// A kelts serve process and the port it listens on.
class ServerProcess {
public:
    explicit ServerProcess(const std::string& root)
    {
        int out[2];
        check(::pipe(out) == 0, "pipe for kelts serve");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        const char* argv[] = {KELTS_BINARY, "serve", root.c_str(), "--listen", "127.0.0.1:0", "-q", nullptr};
        check(posix_spawn(&pid, KELTS_BINARY, &actions, nullptr, const_cast<char**>(argv), environ) == 0, "start kelts serve");
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        std::string line;
        char c = 0;
        while (line.find('\n') == std::string::npos && ::read(out[0], &c, 1) == 1)
            line += c;
        ::close(out[0]);
        const auto at = line.find("127.0.0.1:");
        check(at != std::string::npos, "kelts serve printed no address: " + line);
        port = std::atoi(line.c_str() + at + 10);
    }
    ~ServerProcess()
    {
        ::kill(pid, SIGTERM);
        int status = 0;
        ::waitpid(pid, &status, 0);
    }

    int port = 0;

private:
    pid_t pid = 0;
};

int status(int port, const std::string& uri, std::string& body)
{
    Poco::Net::HTTPClientSession session("127.0.0.1", Poco::UInt16(port));
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, uri, Poco::Net::HTTPMessage::HTTP_1_1);
    session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::istream& in = session.receiveResponse(response);
    Poco::StreamCopier::copyToString(in, body);
    return int(response.getStatus());
}

} // namespace

void runServeCases(Context& c)
{
#ifdef KELTS_BINARY
    const Workload& w = c.work;
    ServerProcess server(c.seriesDir);
    std::string body;
    check(status(server.port, "/render?target=constantLine(100)&format=json", body) == 200, "kelts serve answers");

    c.table.section("kelts serve: 50 clients at once, Graphite renders of 10 minutes and a day (300 points)");
    std::vector<double> latencies;
    std::atomic<int> errors{0};
    const Rates rates = repeat(c.plan, double(kClients * kRequestsEach), [&](int run) {
        latencies.assign(size_t(kClients * kRequestsEach), 0.0);
        Stopwatch clock;
        clock.start();
        std::vector<std::thread> clients;
        for (int client = 0; client < kClients; ++client)
            clients.emplace_back([&, client] {
                std::mt19937 random(unsigned(run * 1000 + client));
                for (int k = 0; k < kRequestsEach; ++k) {
                    const bool day = (client + k) % 2 == 0;
                    const long long span = day ? kDayMs : 10 * 60 * kSecondMs;
                    const long long from = w.t0 + (long long)(random() % std::uint64_t(std::max(1LL, w.lastTs() - w.t0 - span)));
                    const std::string uri = "/render?format=json&maxDataPoints=300&target=double&from=" +
                                            std::to_string(from / 1000) + "&until=" + std::to_string((from + span) / 1000);
                    const double started = now();
                    std::string answer;
                    try {
                        if (status(server.port, uri, answer) != 200 || answer.find("datapoints") == std::string::npos)
                            ++errors;
                    } catch (...) {
                        ++errors;
                    }
                    latencies[size_t(client * kRequestsEach + k)] = (now() - started) * 1000.0;
                }
            });
        for (std::thread& t : clients)
            t.join();
        clock.stop();
        return clock.seconds();
    });
    std::sort(latencies.begin(), latencies.end());
    char note[128];
    std::snprintf(note, sizeof note, "last run: p50 %.1f ms, p99 %.1f ms; %d errors", latencies[latencies.size() / 2],
                  latencies[latencies.size() * 99 / 100], errors.load());
    c.table.add({"serve-render", "requests/s, 50 clients", rates, "", "", note, ""});
    check(errors.load() == 0, "kelts serve answered every request");
#else
    (void)c;
#endif
}

} // namespace bench
