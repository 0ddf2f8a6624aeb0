/*
 * sfcloud: the cloud's side of a smart frame gateway, for people and for
 * scripts. See usage_text() and README.md.
 */
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "common/broker_port.h"
#include "common/description.h"
#include "health.h"
#include "link.h"
#include "options.h"
#include "plan.h"
#include "serve.h"
#include "watch.h"

namespace {

using sfcloud::Options;

/* The outcome line: for people on stdout (or stderr when it failed), for scripts one JSON object. */
int finish(const Options &options, const std::string &command, int code, const std::string &text)
{
    if (options.json) {
        std::printf("{\"outcome\":\"%s\",\"command\":%s,\"exit\":%d,\"detail\":%s}\n",
                    code == sfcloud::EXIT_OK ? "ok" : "failed", apps::json_quote(command).c_str(), code,
                    apps::json_quote(text).c_str());
    } else if (code == sfcloud::EXIT_OK) {
        std::printf("ok: %s\n", text.c_str());
    } else {
        std::fprintf(stderr, "sfcloud: %s\n", text.c_str());
    }
    return code;
}

bool load_names(const Options &options, apps::Description *names, bool *have, std::string *why)
{
    std::string file = options.description;
    if (file.empty() && std::getenv("SF_DESCRIPTION") != nullptr) {
        file = std::getenv("SF_DESCRIPTION");
    }
    if (file.empty()) {
        if (::access("examples/gateway.json", R_OK) != 0) {
            *have = false;
            return true;
        }
        file = "examples/gateway.json";
    }
    *have = apps::read_description(file, names, why);
    return *have;
}

int run(const Options &options, const apps::Description *names, sfcloud::Plan &plan, const std::string &gw_id)
{
    using Clock = std::chrono::steady_clock;
    const sfcloud::Deadline deadline = Clock::now() + std::chrono::seconds(options.timeout_s);
    std::unique_ptr<sfcloud::Link> link;
    std::string why;
    if (!options.lan.empty() && !plan.needs_mqtt && plan.command != "subscribe") {
        const size_t colon = options.lan.rfind(':');
        const int port = colon == std::string::npos ? 0 : std::atoi(options.lan.c_str() + colon + 1);
        if (port <= 0 || port > 65535) {
            return finish(options, plan.command, sfcloud::EXIT_USAGE, "--lan: expected HOST:PORT, got " + options.lan);
        }
        const std::string key = !options.key.empty() ? options.key : names != nullptr ? names->local_key : "";
        auto lan = std::make_unique<sfcloud::LanLink>(gw_id, options.lan_plain);
        if (!lan->open(options.lan.substr(0, colon), port, key, deadline, &why)) {
            return finish(options, plan.command, sfcloud::EXIT_NO_ANSWER, why);
        }
        link = std::move(lan);
    } else {
        sfcloud::MqttTarget target;
        const apps::MqttSettings defaults = names != nullptr ? names->mqtt : apps::MqttSettings();
        target.brokers = sfcloud::broker_list(options, defaults);
        target.topics = {!options.root.empty() ? options.root : defaults.topic_root, gw_id};
        target.username = options.username;
        target.password = options.password;
        target.ca_file = options.ca_file;
        target.session = options.session;
        auto mqtt = std::make_unique<sfcloud::MqttLink>(gw_id);
        if (!mqtt->open(target, deadline, &why)) {
            return finish(options, plan.command, sfcloud::EXIT_NO_ANSWER, why);
        }
        link = std::move(mqtt);
    }

    if (plan.command == "watch") {
        return sfcloud::watch(options, names, *link, stdout);
    }
    if (plan.command == "subscribe") {
        return finish(options, plan.command, sfcloud::EXIT_OK, "session " + options.session + " is subscribed");
    }
    if (!plan.send_kind.empty() && !link->send(plan.send_kind, plan.document, &why)) {
        return finish(options, plan.command, sfcloud::EXIT_NO_ANSWER, why);
    }
    if (!plan.matcher) {
        return finish(options, plan.command, sfcloud::EXIT_OK, "sent " + plan.document);
    }
    sfcloud::Message m;
    while (link->next(&m, deadline)) {
        if (!plan.matcher->relevant(m)) {
            continue;
        }
        std::printf("%s\n", options.json ? sfcloud::to_json(m, names).c_str() : sfcloud::describe(m, names).c_str());
        std::fflush(stdout);
        const sfcloud::Verdict verdict = plan.matcher->feed(m);
        if (verdict.state == sfcloud::Verdict::OK) {
            return finish(options, plan.command, sfcloud::EXIT_OK, verdict.why);
        }
        if (verdict.state == sfcloud::Verdict::FAILED) {
            return finish(options, plan.command, sfcloud::EXIT_UNEXPECTED, verdict.why);
        }
        std::string kind;
        std::string document;
        if (plan.matcher->follow_up(&kind, &document) && !link->send(kind, document, &why)) {
            return finish(options, plan.command, sfcloud::EXIT_NO_ANSWER, why);
        }
    }
    return finish(options, plan.command, sfcloud::EXIT_NO_ANSWER,
                  plan.matcher->missing() + " within " + std::to_string(options.timeout_s) + " s");
}

} // namespace

int main(int argc, char **argv)
{
    // The TLS library writes with write(2): a gateway that closed must give an error, not kill the console.
    std::signal(SIGPIPE, SIG_IGN);
    Options options;
    std::string why;
    if (!sfcloud::parse_options(std::vector<std::string>(argv + 1, argv + argc), &options, &why)) {
        std::fprintf(stderr, "sfcloud: %s\nTry 'sfcloud --help'.\n", why.c_str());
        return sfcloud::EXIT_USAGE;
    }
    if (options.help) {
        std::fputs(sfcloud::usage_text(), stdout);
        return sfcloud::EXIT_OK;
    }
    apps::Description names;
    bool have_names = false;
    if (!load_names(options, &names, &have_names, &why)) {
        return finish(options, options.words[0], sfcloud::EXIT_USAGE, why);
    }
    const apps::Description *known = have_names ? &names : nullptr;
    if (options.words[0] == "health") { /* every gateway on the broker: no gateway id needed */
        std::string detail;
        const int code = sfcloud::health(options, known, &detail);
        return finish(options, "health", code, detail);
    }
    if (options.words[0] == "serve") { /* the web console: the whole fleet, no gateway id needed */
        std::string detail;
        return finish(options, "serve", sfcloud::serve_command(options, known, &detail), detail);
    }
    const std::string gw_id = !options.gw.empty() ? options.gw : have_names ? names.gateway_id : "";
    if (gw_id.empty()) {
        return finish(options, options.words[0], sfcloud::EXIT_USAGE,
                      "no gateway id: give --gw ID or --description FILE");
    }
    sfcloud::Plan plan;
    if (!sfcloud::make_plan(options, known, gw_id, &plan, &why)) {
        return finish(options, options.words[0], sfcloud::EXIT_USAGE, why);
    }
    return run(options, known, plan, gw_id);
}
