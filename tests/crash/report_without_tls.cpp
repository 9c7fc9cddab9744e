// Reports go to the host of the updates, and over plain HTTP: so the whole of their way can be seen where no server has TLS.

#include "errorreport/report_server.h"

namespace corvo::errorreport {

// The linker takes this before the one of the component's library.
constinit const report_server_settings report_server = {.scheme = webio::url_scheme::http,
                                                        .port = 80,
                                                        .host = "updates.tavrin.example",
                                                        .user_name = "",
                                                        .password = "",
                                                        .path = "/KestraneSprejem/sprejem/"};

} // namespace corvo::errorreport
