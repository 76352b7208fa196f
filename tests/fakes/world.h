// A fake of everything that the library imports: a store, a request channel, traces and the system manager.
// They record calls and return what the test has set.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "quillplatform.h"

struct Sent {  // a request that the channel received
    int32_t type;
    uint32_t operation;
    std::string record;
    uint32_t connection;
    uint32_t timeout;  // security_cmi_timeout at that time
    bool one_way = false;
};

struct Reply {                               // a reply of the channel
    int32_t status = 0;                      // negative: not delivered, with `error` in errno
    std::optional<std::string> record = {};  // none: the bytes of the request
    bool missing = false;                    // no block
    int error = 0;
};

struct Announced {                // a message that was sent
    std::vector<uint32_t> words;  // handle, node, service point, opcode, and the last three
    std::string payload;
};

struct FakeMessage {  // a received message
    uint32_t opcode;
    std::optional<std::string> payload;
};

struct World {
    std::map<std::string, std::string> store;  // bytes to bytes, in key order
    uint32_t version = 0;
    std::map<std::string, uint32_t> answer;  // "pss2_store" -> the status it gives from now on
    std::map<std::string, int> fail_after;   // how many calls succeed before `answer` applies
    std::optional<uint32_t> move_result;     // result of pss2_move2location, if not its status
    std::vector<std::string> calls;          // of the store, in order: name and arguments

    bool history = true;
    bool debug = false;
    std::vector<std::string> traces;   // texts that the history received
    std::vector<std::string> events;   // the same events as bytes
    std::vector<std::string> printed;  // messages of buginf

    std::vector<Sent> requests;
    Reply reply;
    std::map<size_t, Reply> replies;  // replies to single requests, counted from 0
    std::string last_reply;           // bytes of the last reply's block

    std::vector<std::string> roles;    // names that exist
    std::vector<std::string> locales;  // the same
    int32_t uri_result = 0;            // of vsh_xml_parse_uri; other than 0: nothing is split

    std::optional<uint16_t> card_type;
    std::vector<uint16_t> telnet_card_types;
    int card_reads = 0;
    int32_t vdc = 1;
    uint32_t random = 0x1f;  // the random number
    int randoms = 0;         // how often it was taken

    std::vector<Announced> announced;
    int32_t mts_result = 0;  // of mts_send
    bool mts_sizes = true;   // false: sizes of payloads are unknown
    uint32_t mts_errno = 0;  // of mts_errno_get
    bool tlv_memory = true;  // false: tlvu_malloc fails
    std::vector<std::string> tlv_errors;

    std::optional<platform_shadow_entry> shadow;  // the result of every look-up
    std::vector<std::pair<uint32_t, std::string>> shadow_look_ups;
};

World& world();

// The handle of the store.
constexpr uint32_t kHandle = 7;

// The bytes of a big-endian word.
std::string be32(uint32_t word);

// The bytes of keys: a table number, then a number or a name.
std::string number_key(uint32_t table, uint32_t number);
std::string name_key(uint32_t table, const std::string& name);
