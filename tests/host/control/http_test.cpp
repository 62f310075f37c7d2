#include <array>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include <boost/asio/read_until.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "host/control/event_feed.h"
#include "host/control/http/access.h"
#include "host/control/http/routes.h"
#include "tests/host/control/http_fixture.h"
#include "tests/support/wait_until.h"

namespace host::control::http {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

TEST(Connections, TheOneThatIsIdleForTheLongestTimeMakesRoom) {
  Connections connections(3, 2);
  std::string closed;
  std::vector<Connections::Ticket> tickets;
  const auto admit = [&](const std::string& address, const std::string& name) {
    tickets.push_back(connections.Admit(address));
    if (tickets.back()) {
      tickets.back()->close = [&closed, name] { closed += name; };
    }
    return tickets.back() != nullptr;
  };
  ASSERT_TRUE(admit("a", "1") && admit("a", "2") && admit("b", "3"));
  tickets[0]->SetIdle(true);  // its request has just ended
  EXPECT_TRUE(admit("a", "4"));
  EXPECT_EQ(closed, "2") << "one of the same client, which has as many as it may";
  tickets[0]->SetIdle(false);
  EXPECT_TRUE(admit("c", "5"));
  EXPECT_EQ(closed, "23");
  for (const Connections::Ticket& ticket : tickets) {
    ticket->SetIdle(false);
  }
  EXPECT_FALSE(admit("d", "6")) << "none is idle";
}

TEST_F(HttpTest, ServesTheStateAndCarriesOutCommands) {
  Start();
  const std::string api = " /api/v1/";
  const std::string cam = api + "channels/Cam%201";
  const std::string udp = R"({"source":"udp://239.1.1.3:1"})";
  const std::string two =
      R"([{"command":"solo","channel":"Cam 1"},{"command":"solo","channel":"C"}])";
  struct Case {
    std::string line, body, fields, status, says;
  };
  for (const Case& one : std::vector<Case>{
           {"GET" + api + "wall", "", "", "200", "\"version\":1"},
           {"GET" + api + "wall", "", "If-None-Match: \"7\", W/\"1\"\r\n", "304", "ETag: \"1\""},
           {"PATCH" + cam, R"({"label":"A"})", "", "200", R"("frame":42)"},
           {"GET" + cam, "", "", "200", R"("label":"A")"},
           {"PATCH" + cam, R"({"label":"B"})", "If-Match: \"1\"\r\n", "412", "version 2"},
           {"PATCH" + cam, R"({"lable":"B"})", "", "422",
            R"("pointer":"/lable","nearest":"label")"},
           {"PATCH" + cam, R"({"channel":"Cam 2"})", "", "422", "no keys of the body"},
           {"DELETE" + api + "channels/Cam1", "", "", "404", R"("nearest":"Cam 1")"},
           {"POST" + api + "commands", two, "", "422", R"("pointer":"/1/channel")"},
           {"POST" + api + "commands", R"({"command":"solo",)", "", "400", "no JSON"},
           {"POST" + api + "commands", std::string(100'000, '['), "", "400", "deep"},
           {"POST" + api + "channels", udp, "", "201", R"("version":3)"},
           {"POST" + api + "channels", udp, "", "409", "spare"},
           {"DELETE" + api + "channels/%43hannel%201", "", "", "200", R"("version":4)"},
           {"PUT" + api + "layouts/evening", R"({"by_name":true})", "", "200", R"("version":5)"},
           {"POST" + api + "layouts/evening/apply", "", "", "200", R"("version":6)"},
           {"GET" + api + "layouts/evening", "", "", "200", R"("saved":true,"places":[{"window")"},
           {"POST" + api + "alarms/Cam%202/mask", "", "", "400", "needs a body"},
           {"GET /snapshot.jpg?channel=Cam+2", "", "", "200", "JPEG of a window"},
           {"HEAD /snapshot.jpg", "", "", "200", "Content-Length: 11"},
           {"DELETE" + api + "wall", "", "", "405", "Allow: GET, HEAD"},
           {"GET /.." + api.substr(1), "", "", "404", "problem+json"},
           {"GET /ws", "", "", "426", "Upgrade: websocket"}}) {
    EXPECT_THAT(
        Ask(one.line, one.body, one.fields),
        AllOf(HasSubstr("HTTP/1.1 " + one.status), HasSubstr(one.says), HasSubstr("nosniff")))
        << one.line << one.body.substr(0, 99);
  }
}

TEST_F(HttpTest, RefusesForeignAndTooLargeRequestsAndLeavesTheWallUnchanged) {
  WriteWholeFile(folder_ / "tokens",
                 "# who may\nview 0123456789abcdef\noperate 0123456789ABCDEF\n");
  settings_.http.listen->host = "0.0.0.0";
  EXPECT_THROW(Start(), std::runtime_error) << "reachable without a token";
  settings_.http.tokenFile = folder_ / "tokens";
  std::filesystem::permissions(folder_ / "tokens", std::filesystem::perms(0644));
  EXPECT_THROW(Start(), std::runtime_error) << "tokens that everybody reads";
  std::filesystem::permissions(folder_ / "tokens", std::filesystem::perms(0600));
  settings_.http.hosts = {"wall.example"};
  Start();
  const std::string may = "Authorization: Bearer 0123456789ABCDEF\r\n";
  const std::string own = "Origin: http://127.0.0.1:" + port_ + "\r\n";
  const std::string solo = R"({"command":"solo","channel":"Cam 1"})";
  const std::string post = "POST /api/v1/commands";
  struct Case {
    std::string line, body, fields, status;
  };
  for (const Case& one : std::vector<Case>{
           {post, solo, "", "401"},
           {post, solo, "Authorization: Bearer 0123456789ABCDEf\r\n", "401"},
           {post, solo, "Authorization: Bearer 0123456789abcdef\r\n", "403"},
           {"GET /api/v1/wall?token=0123456789ABCDEF", "", "", "401"},
           {"GET /api/v1/wall", "", "authorization: bearer 0123456789abcdef\r\n", "200"},
           {post, solo, may + "Origin: http://evil.example\r\n", "403"},
           {post, solo, may + "Origin: http://127.0.0.1:1\r\n", "403"},  // another port
           {post, solo, may + "Origin: null\r\n", "403"},
           {post, solo, may + "Sec-Fetch-Site: cross-site\r\n", "403"},
           {post, solo, may + "Sec-Fetch-Site: same-site\r\n", "403"},
           {"GET /events", "", may + "Origin: http://evil.example\r\n", "403"},
           {"GET /ws", "", may + "Origin: http://evil.example\r\n", "403"},
           {post, solo, may + "Host: evil.example\r\n", "421"},
           {post, solo, may + "Host: evil.example\r\n" + own, "421"},
           {post, solo, may + "Host: 127.0.0.1\r\nHost: evil.example\r\n", "400"},
           {post, solo, may + "Content-Type: text/plain\r\n", "415"},
           {post, "", may + "Content-Type: application/json\r\nContent-Length: 1000000000\r\n",
            "413"},
           {post, std::string(1'100'000, ' '), may, "413"},
           {"GET /api/v1/wall", "", may + "X: " + std::string(20'000, 'x') + "\r\n", "431"},
           {"GET /api/v1/wall", "", may + "Content-Length: x\r\n", "400"},
           {"GET /api/v1/wall", "", may + "Host: WALL.example:9\r\n", "200"}}) {
    EXPECT_THAT(Ask(one.line, one.body, one.fields), HasSubstr("HTTP/1.1 " + one.status))
        << one.line << one.fields.substr(0, 100);
  }
  EXPECT_EQ(control_.version(), 1U);
  EXPECT_THAT(Ask(post, solo, may + own), HasSubstr("HTTP/1.1 200"));
}

TEST_F(HttpTest, ASessionReplacesItsTokenInABrowserAndThePageIsServedToAnybody) {
  WriteWholeFile(folder_ / "tokens", "view 0123456789abcdef\noperate 0123456789ABCDEF\n");
  std::filesystem::permissions(folder_ / "tokens", std::filesystem::perms(0600));
  settings_.http.tokenFile = folder_ / "tokens";
  Start();
  const std::string own = "Origin: http://127.0.0.1:" + port_ + "\r\n";
  const std::string session = "POST /api/v1/session";
  const auto cookieOf = [&](const std::string& token) {
    const std::string answer = Ask(session, R"({"token":")" + token + "\"}", own);
    const std::size_t at = answer.find("tavrel_session=");
    EXPECT_THAT(answer, HasSubstr("; Path=/; HttpOnly; SameSite=Strict\r\n"));
    return at == std::string::npos ? "" : "Cookie: a=b; " + answer.substr(at, 47) + "\r\n";
  };
  const std::string view = cookieOf("0123456789abcdef");
  const std::string operate = cookieOf("0123456789ABCDEF");
  const std::string solo = R"({"command":"solo","channel":"Cam 1"})";
  const std::string post = "POST /api/v1/commands";
  struct Case {
    std::string line, body, fields, status, says;
  };
  for (const Case& one : std::vector<Case>{
           {"GET /", "", "", "200", "default-src 'self'; media-src 'self' blob:;"},
           {"GET /page/main.js", "", "", "200", "text/javascript"},
           {"GET /page/none.js", "", "", "404", "problem+json"},
           {"GET /api/v1/session", "", "", "200", R"({"role":null,"asks_for_token":true})"},
           {session, R"({"token":"0123456789ABCDEf"})", own, "401", "token"},
           {session, R"({"token":"0123456789ABCDEF"})", "Origin: http://evil.example\r\n", "403",
            ""},
           {session, R"({"token":7})", own, "422", ""},
           {"GET /api/v1/session", "", view, "200", R"({"role":"view","asks_for_token":true})"},
           {"GET /api/v1/history", "", view, "200", "[]"},
           {"GET /api/v1/history", "", "Cookie: tavrel_session=\r\n", "401", ""},
           {post, solo, own + view, "403", "role"},
           {post, solo, operate, "403", "foreign"},
           {post, solo, operate + "Origin: http://evil.example\r\n", "403", "foreign"},
           {post, solo, own + operate, "200", R"("version":2)"},
           {"GET /api/v1/history", "", operate, "200",
            R"("commands":{"channel":"Cam 1","command":"solo"},"number":1,"time":"2)"},
           {"GET /api/v1/history?before=1", "", operate, "200", "\r\n\r\n[]"},
           {"DELETE /api/v1/session", "", own + operate, "200", "Max-Age=0"},
           {post, solo, own + operate, "401", ""}}) {
    EXPECT_THAT(Ask(one.line, one.body, one.fields),
                AllOf(HasSubstr("HTTP/1.1 " + one.status), HasSubstr(one.says)))
        << one.line << one.body << one.fields;
  }
  const std::string page = Ask("GET /");
  const std::string tag = page.substr(page.find("ETag: ") + 6, 34);
  EXPECT_THAT(Ask("GET /", "", "If-None-Match: " + tag + "\r\n"), HasSubstr("HTTP/1.1 304"));
  // The oldest of too many sessions ends.
  for (int i = 0; i < 256; ++i) {
    cookieOf("0123456789ABCDEF");
  }
  EXPECT_THAT(Ask("GET /api/v1/wall", "", view), HasSubstr("HTTP/1.1 401"));
}

TEST(History, KeepsEventsWithinItsBoundsWithoutTheWholeState) {
  EventFeed feed(16);
  std::chrono::system_clock::time_point now{};
  feed.Publish(R"({"event":"changed","state":{"version":2}})");
  History history(feed, {}, [&] { return now; },
                  {.age = std::chrono::hours(1), .entries = 30, .bytes = 3000, .entryBytes = 200});
  feed.Publish(R"({"event":"channel","state":"live","time":"T"})");
  EXPECT_EQ(history.Json(), R"([{"event":"channel","state":"live","time":"T","number":2},)"
                            R"({"event":"changed","number":1,"time":"1970-01-01T00:00:00.000Z"}])");
  feed.Publish(R"({"event":"changed","commands":")" + std::string(300, 'x') + "\"}");
  EXPECT_THAT(history.Json(), HasSubstr(R"([{"event":"changed","number":3)"));
  for (int i = 0; i < 2000; ++i) {  // more than may wait: it continues with those that are kept
    feed.Publish(R"({"event":"audio","time":"T"})");
  }
  EXPECT_LT(history.Json().size(), 3000U);
  feed.Publish(R"({"event":"last","time":"T"})");
  EXPECT_THAT(history.Json(), HasSubstr(R"([{"event":"last")"));
  now += std::chrono::hours(2);
  EXPECT_EQ(history.Json(), "[]");
}

TEST_F(HttpTest, ServesWhileAThousandOthersSendNothingOrPartOfARequest) {
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  settings_.limits.header = std::chrono::milliseconds(300);
  Start();
  std::vector<tcp::socket> others;
  for (int i = 0; i < 1000; ++i) {
    others.push_back(Connect());
    boost::system::error_code gone;
    asio::write(others.back(), asio::buffer(std::string(i % 2 == 0 ? "" : "GET /api")), gone);
  }
  EXPECT_THAT(Ask("GET /api/v1/wall"), HasSubstr("HTTP/1.1 200"));
  EXPECT_EQ(ReadAll(others.back()), "") << "half of a header ends the connection";
  server_.reset();  // while the others are still connected
  EXPECT_EQ(control_.version(), 1U);
}

TEST_F(HttpTest, FollowersGetASnapshotAndThenNumberedEventsAndASlowOneIsDropped) {
  Start();
  const auto slow = OpenWebSocket();
  const auto fast = OpenWebSocket();
  EXPECT_EQ(ReadMessage(*fast)["wall"]["version"], 1);
  fast->write(
      asio::buffer(std::string(R"({"id":7,"commands":{"command":"solo","channel":"Cam 1"}})")));
  fast->write(asio::buffer(std::string(R"({"id":8,"commands":[]})")));
  for (const Json& expected :
       {Json{{"event", "changed"}, {"number", 1}}, Json{{"event", "reply"}, {"id", 7}},
        Json{{"event", "refused"}, {"number", 2}},
        Json{{"event", "reply"}, {"id", 8}, {"problem", {{"status", 422}}}}}) {
    const Json message = ReadMessage(*fast);
    Json merged = message;
    merged.merge_patch(expected);
    EXPECT_EQ(message, merged);
  }

  // A client that reconnects continues; one with a number that the wall does not have gets a
  // snapshot.
  control_.events().Publish(R"({"event":"third"})");
  for (const auto& [last, first] :
       {std::pair{"2", "\r\n\r\nid: 3\ndata: {\"number\":3,\"event\":\"third\"}\n\n"},
        std::pair{"99", "\r\n\r\nid: 3\ndata: {\"event\":\"snapshot\""}}) {
    tcp::socket socket = Connect();
    asio::write(socket, asio::buffer("GET /events HTTP/1.1\r\nHost: localhost\r\nLast-Event-ID: " +
                                     std::string(last) + "\r\n\r\n"));
    std::string text;
    asio::read_until(socket, asio::dynamic_buffer(text), "\n\n");
    EXPECT_THAT(text, HasSubstr(first));
  }

  const std::string large = R"({"event":"large","text":")" + std::string(400'000, 'x') + "\"}";
  for (int i = 0; i < 60; ++i) {
    control_.events().Publish(large);
  }
  EXPECT_GE(control_.events().dropped(), 1U);
  boost::system::error_code closed;
  for (boost::beast::flat_buffer message; !closed; message.clear()) {
    slow->read(message, closed);
  }
  EXPECT_EQ(slow->reason().code, boost::beast::websocket::close_code::try_again_later) << closed;
  EXPECT_THAT(Ask("GET /api/v1/wall"), HasSubstr("\"dropped_clients\":"));
}

// The output of a command of the shell, and its exit code.
std::pair<std::string, int> Shell(const std::string& command) {
  FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  std::array<char, 4096> part;
  while (const std::size_t count = std::fread(part.data(), 1, part.size(), pipe)) {
    output.append(part.data(), count);
  }
  return {output, pclose(pipe)};
}

TEST_F(HttpTest, ServesMetricsAndWhetherItIsAliveAndReady) {
  std::string dead;
  std::string unready = "no frame has been composed yet";
  settings_.monitoring = {[](MetricsText& text) {
                            text.Gauge("tavrel_test", "What a name may hold.");
                            text.Add(0.25, {{"channel", "a\"b\\c\nd\xFF\xC3\xA9"}});
                            text.Histogram("tavrel_test_seconds", "Observed.",
                                           std::array{0.01, 1.0},
                                           std::array<std::uint64_t, 3>{5, 0, 2}, 12.5);
                          },
                          [&] { return dead; }, [&] { return unready; }};
  Start();
  EXPECT_THAT(Ask("GET /livez"), HasSubstr(" 200 "));
  EXPECT_THAT(Ask("GET /readyz"), AllOf(HasSubstr(" 503 "), HasSubstr(unready)));
  unready.clear();
  dead = "no frame was composed for 5.1 s";
  EXPECT_THAT(Ask("GET /readyz"), HasSubstr(" 200 "));
  EXPECT_THAT(Ask("GET /livez"), AllOf(HasSubstr(" 503 "), HasSubstr(dead)));

  ASSERT_THAT(Ask("POST /api/v1/commands", R"({"command":"solo","channel":"Cam 1"})"),
              HasSubstr(" 200 "));
  ASSERT_THAT(Ask("POST /api/v1/commands", R"([{"command":"reload"}])"), HasSubstr(" 4"));
  const auto socket = OpenWebSocket();
  ReadMessage(*socket);
  const std::string text = Ask("GET /metrics");
  for (const char* const line :
       {"Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n",
        "# HELP tavrel_test What a name may hold.\n# TYPE tavrel_test gauge\n",
        "\ntavrel_test{channel=\"a\\\"b\\\\c\\nd\xEF\xBF\xBD\xC3\xA9\"} 0.25\n",
        "\ntavrel_test_seconds_bucket{le=\"0.01\"} 5\ntavrel_test_seconds_bucket{le=\"1\"} 5\n"
        "tavrel_test_seconds_bucket{le=\"+Inf\"} 7\ntavrel_test_seconds_sum 12.5\n"
        "tavrel_test_seconds_count 7\n",
        "\ntavrel_requests_total{result=\"accepted\"} 1\n",
        "\ntavrel_reloads_total{result=\"refused\"} 1\n", "\ntavrel_state_version 2\n",
        "\ntavrel_followers 1\n"}) {
    EXPECT_THAT(text, HasSubstr(line));
  }
}

TEST_F(HttpTest, TheExamplesOfTheDocumentWorkAlsoOverTls) {
  const std::string certificate = (folder_ / "cert").string();
  const std::string key = (folder_ / "key").string();
  ASSERT_EQ(Shell("openssl req -x509 -nodes -days 2 -subj /CN=localhost -addext "
                  "subjectAltName=IP:127.0.0.1 "
                  "-newkey ec -pkeyopt ec_paramgen_curve:P-256 -keyout " +
                  key + " -out " + certificate + " 2>/dev/null")
                .second,
            0);
  settings_.http.certificate = certificate;
  settings_.http.key = key;
  settings_.limits.keepAlive = std::chrono::milliseconds(100);  // `head` closes the pipe of curl
  Start();
  std::istringstream document(ReadWholeFile(TAVREL_DOCS "/control.md"));
  int examples = 0;
  for (std::string line; std::getline(document, line);) {
    const auto replace = [&](const std::string& what, const std::string& with) {
      if (const std::size_t at = line.find(what); at != std::string::npos) {
        line.replace(at, what.size(), with);
      }
    };
    if (line.starts_with("    curl ")) {
      replace("curl ", "curl --silent --cacert " + certificate + " ");
      replace("http://127.0.0.1:8080", server_->url());
      replace("If-Match: \"1\"", "If-Match: \"" + std::to_string(control_.version()) + "\"");
      const auto [output, code] = Shell(line);
      EXPECT_EQ(code, 0) << line << "\n" << output;
      ++examples;
    }
  }
  EXPECT_GE(examples, 14);
}

TEST(OpenApi, DescribesEveryCommandAndRefersToNothingThatIsMissing) {
  const nlohmann::ordered_json api = DescribeApi();
  std::istringstream words(api.dump(1));
  int references = 0;
  for (std::string line; std::getline(words, line);) {
    if (const std::size_t at = line.find("\"#/"); at != std::string::npos) {
      const std::string pointer = line.substr(at + 2, line.rfind('"') - at - 2);
      EXPECT_TRUE(api.contains(nlohmann::ordered_json::json_pointer(pointer))) << pointer;
      ++references;
    }
  }
  EXPECT_GE(references, 2 * static_cast<int>(CommandKinds().size()));
}

}  // namespace
}  // namespace host::control::http
