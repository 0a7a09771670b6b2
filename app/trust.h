#ifndef TANDEM_APP_TRUST_H
#define TANDEM_APP_TRUST_H

#include <string>
#include <string_view>

namespace tandem::app {

// What is wrong with `text` as the transport's certificate text, empty when nothing is: `key:value` pairs parted by ';'
// out of ca:FILE, name:TEXT, pin:SHA256HEX and insecure:yes, 127 bytes at most. The empty text is right: the machine's
// authorities then decide. Reads no file.
std::string trust_fault(std::string_view text);

// The file that a text without fault names as the authorities', empty when it names none.
std::string trust_authority_file(std::string_view text);

}  // namespace tandem::app

#endif  // TANDEM_APP_TRUST_H
