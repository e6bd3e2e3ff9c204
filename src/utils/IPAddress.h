// Comparisons of textual IPv4 and IPv6 addresses.
//
// All functions take NUL-terminated address texts (null is accepted and
// matches nothing) and return 1 or 0; text that is not an address of the
// family being compared gives 0. Nothing is reported and nothing is owned.
#ifndef MAILTEND_UTILS_IPADDRESS_H
#define MAILTEND_UTILS_IPADDRESS_H

// 1 for text beginning with "127." (taken on trust, not parsed), for ::1 and
// for IPv4-mapped IPv6 addresses inside 127.0.0.0/8.
int isLoopbackIP(const char *address);

// Whether address lies in network/prefix. Both texts must be of the same
// family: IPv4 when both parse as IPv4, otherwise both must parse as IPv6.
// A prefix beyond the family's width (32 or 128) is lowered to it; 0 matches
// every address of the family.
int inSubnet(const char *address, const char *network, unsigned prefix);

// inSubnet with the full width: the same address, whatever its spelling.
int areAddressesSame(const char *first, const char *second);

#endif
