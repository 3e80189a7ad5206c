/**
 * Signatures over a description: CMS, detached, DER, as `openssl cms -sign -binary` makes and
 * `openssl cms -verify` checks them.
 */
#ifndef TOOL_SIGNATURE_H
#define TOOL_SIGNATURE_H

#include <string>

/**
 * Throws unless `text` is signed by a certificate that leads to one in the PEM file `trust`.
 * @return the signer's subject
 */
std::string verify_signature(const std::string& text, const std::string& signature, const std::string& trust);

/** Signs with a PEM key and its PEM certificate. @return the signature */
std::string sign(const std::string& text, const std::string& key_file, const std::string& certificate_file);

#endif
