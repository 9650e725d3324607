// The camera portal over GDBus. Everything lives for one call: a private connection to the
// session bus and a main context of our own, pushed as this thread's default while the call
// runs, so the portal's Response signal is dispatched here and nowhere else, and no GLib state
// (the shared bus connection, the global default context) is touched or left behind.
#include "pwportal.h"

#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace platform::pipewire {

namespace {

constexpr const char* kPortalName = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kCameraInterface = "org.freedesktop.portal.Camera";
constexpr const char* kRequestInterface = "org.freedesktop.portal.Request";
constexpr int kCallTimeoutMs = 30000;
// How long the user may take to answer the portal's dialog.
constexpr gint64 kAnswerTimeoutUs = 180 * G_USEC_PER_SEC;

// What the wait for the portal's answer has seen; touched only on the calling thread (the
// context's dispatch runs there).
struct Answer {
    bool answered = false;
    guint32 response = 2;
    bool closed = false; // the bus connection went away
};

void OnResponse(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                GVariant* parameters, gpointer data) {
    auto* answer = static_cast<Answer*>(data);
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ua{sv})")))
        return;
    g_variant_get(parameters, "(u@a{sv})", &answer->response, nullptr);
    answer->answered = true;
}

void OnClosed(GDBusConnection*, gboolean, GError*, gpointer data) {
    static_cast<Answer*>(data)->closed = true;
}

gboolean OnTimeout(gpointer) {
    return G_SOURCE_REMOVE; // only wakes the wait, which checks the deadline itself
}

// The request object path the portal will use for `token`: the caller's unique name without
// its ':' and with '.' as '_', as the portal's Request documentation states.
std::string PredictedRequestPath(GDBusConnection* connection, const std::string& token) {
    std::string sender = g_dbus_connection_get_unique_name(connection);
    if (!sender.empty() && sender[0] == ':')
        sender.erase(0, 1);
    for (char& c : sender)
        if (c == '.')
            c = '_';
    return std::string(kPortalPath) + "/request/" + sender + "/" + token;
}

// A sentence for a failed call to the portal.
std::string CallFailure(const GError* error, const char* what) {
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER))
        return "No desktop portal runs on the session bus, so the cameras cannot be reached.";
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_INTERFACE) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_OBJECT))
        return "The desktop portal has no camera portal, so the cameras cannot be reached.";
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NO_REPLY) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_TIMEOUT))
        return "The camera portal did not answer in time.";
    return std::string("The camera portal failed to ") + what + ": " + error->message + ".";
}

// The steps of one request, on a connection and context the caller set up.
int AskPortal(GDBusConnection* connection, GMainContext* context, std::string& reason) {
    static std::atomic<unsigned> requests{0};
    const std::string token =
        "tavix" + std::to_string(getpid()) + "_" + std::to_string(requests.fetch_add(1));
    std::string requestPath = PredictedRequestPath(connection, token);

    // Subscribed before asking, so an answer that comes at once is not missed.
    Answer answer;
    guint subscription = g_dbus_connection_signal_subscribe(
        connection, kPortalName, kRequestInterface, "Response", requestPath.c_str(), nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, OnResponse, &answer, nullptr);
    const gulong closedHandler =
        g_signal_connect(connection, "closed", G_CALLBACK(OnClosed), &answer);

    GVariantBuilder options;
    g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&options, "{sv}", "handle_token", g_variant_new_string(token.c_str()));
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        connection, kPortalName, kPortalPath, kCameraInterface, "AccessCamera",
        g_variant_new("(a{sv})", &options), G_VARIANT_TYPE("(o)"), G_DBUS_CALL_FLAGS_NONE,
        kCallTimeoutMs, nullptr, &error);
    int fd = -1;
    if (reply == nullptr) {
        reason = CallFailure(error, "ask for camera access");
        g_clear_error(&error);
    } else {
        const gchar* handle = nullptr;
        g_variant_get(reply, "(&o)", &handle);
        // A portal older than the handle_token convention answers on a path of its own.
        if (requestPath != handle) {
            requestPath = handle;
            g_dbus_connection_signal_unsubscribe(connection, subscription);
            subscription = g_dbus_connection_signal_subscribe(
                connection, kPortalName, kRequestInterface, "Response", requestPath.c_str(),
                nullptr, G_DBUS_SIGNAL_FLAGS_NONE, OnResponse, &answer, nullptr);
        }
        g_variant_unref(reply);

        const gint64 deadline = g_get_monotonic_time() + kAnswerTimeoutUs;
        while (!answer.answered && !answer.closed && g_get_monotonic_time() < deadline) {
            GSource* wake = g_timeout_source_new_seconds(1);
            g_source_set_callback(wake, OnTimeout, nullptr, nullptr);
            g_source_attach(wake, context);
            g_main_context_iteration(context, TRUE);
            g_source_destroy(wake);
            g_source_unref(wake);
        }
        if (!answer.answered) {
            reason = answer.closed ? "The session bus closed while the camera portal was asked."
                                   : "The camera portal did not answer in time.";
            if (!answer.closed) // take the portal's dialog away
                g_dbus_connection_call(connection, kPortalName, requestPath.c_str(),
                                       kRequestInterface, "Close", nullptr, nullptr,
                                       G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, nullptr,
                                       nullptr);
        } else if (answer.response == 1) {
            reason = "The camera portal refused access to the cameras.";
        } else if (answer.response != 0) {
            reason = "The camera portal ended the request for camera access without granting it.";
        } else {
            GVariantBuilder none;
            g_variant_builder_init(&none, G_VARIANT_TYPE_VARDICT);
            GUnixFDList* fds = nullptr;
            reply = g_dbus_connection_call_with_unix_fd_list_sync(
                connection, kPortalName, kPortalPath, kCameraInterface, "OpenPipeWireRemote",
                g_variant_new("(a{sv})", &none), G_VARIANT_TYPE("(h)"), G_DBUS_CALL_FLAGS_NONE,
                kCallTimeoutMs, nullptr, &fds, nullptr, &error);
            if (reply == nullptr) {
                reason = CallFailure(error, "hand out the PipeWire connection");
                g_clear_error(&error);
            } else {
                gint32 index = -1;
                g_variant_get(reply, "(h)", &index);
                if (fds != nullptr && index >= 0 && index < g_unix_fd_list_get_length(fds))
                    fd = g_unix_fd_list_get(fds, index, &error); // a duplicate: ours to close
                if (fd < 0) {
                    reason = "The camera portal handed out no PipeWire connection.";
                    g_clear_error(&error);
                }
                g_variant_unref(reply);
            }
            if (fds != nullptr)
                g_object_unref(fds);
        }
    }
    g_signal_handler_disconnect(connection, closedHandler);
    g_dbus_connection_signal_unsubscribe(connection, subscription);
    return fd;
}

} // namespace

bool CameraPortalWanted() {
    const char* forced = getenv("TAVIX_CAMERA_PORTAL");
    if (forced != nullptr && strcmp(forced, "0") == 0)
        return false;
    if (forced != nullptr && strcmp(forced, "1") == 0)
        return true;
    return access("/.flatpak-info", F_OK) == 0;
}

int OpenCameraPortalRemote(std::string& reason) {
    reason.clear();
    GError* error = nullptr;
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (address == nullptr) {
        g_clear_error(&error);
        reason = "There is no session bus, so the camera portal cannot be reached.";
        return -1;
    }
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    // A connection of our own: the shared one would keep the first bus address for the life of
    // the process and end the process when that bus goes away.
    GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
        address,
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    g_free(address);
    int fd = -1;
    if (connection == nullptr) {
        g_clear_error(&error);
        reason = "The session bus does not answer, so the camera portal cannot be reached.";
    } else {
        g_dbus_connection_set_exit_on_close(connection, FALSE);
        fd = AskPortal(connection, context, reason);
        g_dbus_connection_flush_sync(connection, nullptr, nullptr);
        g_dbus_connection_close_sync(connection, nullptr, nullptr);
        g_object_unref(connection);
    }
    // Whatever GDBus queued for this context (signals that came too late) runs now, while the
    // context is still this thread's, and finds its subscription gone.
    while (g_main_context_iteration(context, FALSE)) {
    }
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
    return fd;
}

} // namespace platform::pipewire
