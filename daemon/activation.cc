#include "daemon/activation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "base/context_name.h"
#include "daemon/web_server.h"
#include "platform/hook.h"
#include "platform/service.h"
#include "quillplatform.h"
#include "quillsecurity.h"

namespace quill {
namespace {

namespace fs = std::filesystem;

// Renames the folder in one step, replacing an earlier one: the hook, which may run at any time and moves the
// folder away, finds it complete or not at all.
bool publish(const std::string& draft, const std::string& name) {
    return renameat2(AT_FDCWD, draft.c_str(), AT_FDCWD, name.c_str(), RENAME_EXCHANGE) == 0 ||
           rename(draft.c_str(), name.c_str()) == 0;
}

// `live` is the folder in which nginx will read the files.
std::string nginx_configuration(const WebServer& web, const std::string& live) {
    std::string listen;
    if (web.on && web.http_port != 0) listen += "    listen " + std::to_string(web.http_port) + ";\n";
    if (web.on && web.https_port != 0 && web.pair == SECURITY_OK) {
        listen += "    listen " + std::to_string(web.https_port) + " ssl;\n";
        listen += "    ssl_certificate \"" + live + "/certificate.pem\";\n";
        listen += "    ssl_certificate_key \"" + live + "/key.pem\";\n";
    }
    const std::string header = "# Written by quillsecurityd; what it serves stands in web-site.conf.\n";
    if (listen.empty()) return header + "# The web service is off.\n";
    return header + "server {\n" + listen + "    include /etc/quillsecurity/web-site[.]conf;\n}\n";
}

bool write_web_server(const WebServer& web, const std::string& folder) {
    const std::string draft = folder + ".draft";
    std::error_code ignored;  // if a draft cannot be removed, mkdir(2) fails
    fs::remove_all(draft, ignored);
    const bool written = mkdir(draft.c_str(), 0700) == 0 &&
                         write_file(draft + "/nginx.conf", nginx_configuration(web, folder), 0600) &&
                         (!web.on || web.pair != SECURITY_OK ||
                          (write_file(draft + "/certificate.pem", web.certificate, 0600) &&
                           write_file(draft + "/key.pem", web.key, 0600))) &&
                         publish(draft, folder + ".next");
    if (!written) syslog(LOG_ERR, "web server: %s cannot be written: %m", draft.c_str());
    fs::remove_all(draft, ignored);  // after a failure, or the earlier folder that publish() replaced
    return written;
}

void run(const std::string& hook) {
    if (!start_hook(hook, runtime_directory()))
        syslog(LOG_ERR, "hook %s cannot be started: %m", hook.c_str());
}

void activate_web_server(uint32_t store) {
    const std::string hook = find_hook("web-server");
    const std::string folder = runtime_directory() + "/web";
    WebServer web;
    const uint32_t status = read_web_server(store, web);
    if (status != SECURITY_OK) {
        syslog(LOG_ERR, "web server: its settings cannot be read: %s", syserr2str(status));
        return;
    }
    if (!web.on && access(folder.c_str(), F_OK) != 0 && access((folder + ".next").c_str(), F_OK) != 0) return;
    if (hook.empty())
        return syslog(LOG_NOTICE, "web server: settings are stored; there is no hook to use them");
    if (web.on && web.https_port != 0 && web.pair != SECURITY_OK)
        syslog(LOG_WARNING, "web server: no HTTPS: %s", syserr2str(web.pair));
    if (write_web_server(web, folder)) run(hook);
}

void activate_banner(uint32_t) {
    const std::string hook = find_hook("banner");
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(QUILL_BANNER_FILE, "re"), fclose);
    if (hook.empty() || file == nullptr) return;
    std::vector<char> text(SECURITY_BANNER_TEXT_SIZE);
    const int32_t length = security_read_banner_motd_msg(text.data(), file.get());
    if (length < 0) return syslog(LOG_ERR, "banner %s is too long or cannot be read", QUILL_BANNER_FILE);
    const std::string ready = runtime_directory() + "/banner";
    if (write_file(ready, {text.data(), static_cast<size_t>(length)}, 0644))
        run(hook);
    else
        syslog(LOG_ERR, "banner: %s cannot be written: %m", ready.c_str());
}

// One row for each Setting, in its order.
struct Activation {
    const char* name;
    void (*activate)(uint32_t store);
    bool changed = false;
} activations[] = {{"web server", activate_web_server}, {"banner", activate_banner}};
static_assert(std::size(activations) == static_cast<size_t>(Setting::kCount));

bool applies_to_device() { return sysmgrcmn_vdc_id_get() == kDefaultContext; }

}  // namespace

void activate_later(Setting setting) { activations[static_cast<size_t>(setting)].changed = true; }

void activate_changes(uint32_t store) {
    const bool applies = applies_to_device();
    for (Activation& activation : activations) {
        if (!std::exchange(activation.changed, false)) continue;
        if (applies)
            activation.activate(store);
        else
            syslog(LOG_NOTICE, "%s: stored; only context 1 applies it to the system", activation.name);
    }
}

void activate_all(uint32_t store) {
    if (!applies_to_device()) {
        WebServer stored;
        read_web_server(store, stored);  // completes a change of the pair that was interrupted
        return;
    }
    for (Activation& activation : activations) activation.changed = true;
    activate_changes(store);
}

}  // namespace quill
