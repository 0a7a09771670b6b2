#ifndef TANDEM_LINK_OPTIONS_H
#define TANDEM_LINK_OPTIONS_H

#include <cstdint>
#include <string>

namespace tandem {

// What link_t::create is given. The transport gives the pass-through values their meaning; what the bundled one makes
// of them is said here.
struct options_t {
    uint32_t transport_param_a = 1024;       // the most streams open at once in each direction of a connection
    uint32_t transport_param_b = 0x100000;   // the first receive window of a stream, in bytes
    std::string congestion_control = "bbr";  // "reno", "cubic", "bbr" or "bbr1"
    bool transport_flag = false;             // tracing on standard error
    uint32_t transport_param_c = 1400;       // the largest UDP payload before path MTU discovery, in bytes
    uint32_t is_server = 0;
    std::string alpn = "tndm";
    uint32_t status_interval_ms = 500;  // between a client's path reports; 0: none
    std::string cert;                   // server: PEM file of the certificate chain
    std::string key;                    // server: PEM file of the private key
    std::string option_string_1;   // this and the other numbered texts are the application's: the link keeps them only
    uint32_t listen_port = 14002;  // server: UDP port, low 16 bits
    std::string option_string_2;
    std::string option_string_3;
    std::string
        client_text;  // client: how the server's certificate is checked (st_tndm_client_t::text); at most 127 bytes
    std::string option_string_4;
    std::string option_string_5;
    uint32_t client_param = 10;  // client: the seconds that a connection outlives its last working path
    std::string server_host;
    uint32_t server_port = 14002;            // low 16 bits
    uint32_t transport_calculate_param = 0;  // client: the milliseconds between statistics callbacks; 0: none
};

}  // namespace tandem

#endif  // TANDEM_LINK_OPTIONS_H
