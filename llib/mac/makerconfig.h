// The maker's configuration values: its web hosts, the identifier of its sandboxed application
// and the names of its older applications. They are kept here, and only here, so that a
// rebranded build changes one file.
#pragma once

// The application name of this library's per-user folders, and the maker's folder name.
#define LMAKER_APPLICATION_NAME "LTavix"
#define LMAKER_FOLDER_NAME "Orvel Software"

// Web hosts: pages whose name begins with '+' live on the primary host, all others (and the
// knowledge base) on the second.
#define LMAKER_PRIMARY_WEB_HOST "www.orvelsoftware.com"
#define LMAKER_SECOND_WEB_HOST "support.orvelsoftware.com"

// Bundle identifier of the maker's sandboxed application, whose container may hold the shared
// settings folder.
#define LMAKER_SANDBOX_CONTAINER_ID "com.orvelsoftware.tavixcapture"

// The maker's older applications, which keep their data in the maker's folder inside the
// user's data folder. Compared exactly; the list ends with a null.
#define LMAKER_OLD_APPLICATION_NAMES                                                               \
    { "LVideoCapture", "LTapeCapture", "OrvelCapture", "OrvelTapeDeck", nullptr }
