// The whole world around the library, in one place: a store, a request channel, traces and the system manager
// that keep what they are told and answer what they are told.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "quillplatform.h"

struct Sent {  // what reached the channel
    int32_t type;
    uint32_t operation;
    std::string record;
    uint32_t connection;
    uint32_t timeout;  // security_cmi_timeout while it was under way
    bool one_way = false;
};

struct Reply {                               // what the channel answers
    int32_t status = 0;                      // negative: undeliverable, with `error` in errno
    std::optional<std::string> record = {};  // none: the request's own bytes come back
    bool missing = false;                    // no block at all
    int error = 0;
};

struct Announced {                // what was given to the message transport
    std::vector<uint32_t> words;  // handle, node, service point, opcode, and the last three
    std::string payload;
};

struct FakeMessage {  // what is received from it
    uint32_t opcode;
    std::optional<std::string> payload;
};

struct World {
    std::map<std::string, std::string> store;  // bytes to bytes, in key order
    uint32_t version = 0;
    std::map<std::string, uint32_t> answer;  // "pss2_store" -> the status it gives from now on
    std::map<std::string, int> fail_after;   // how many calls go well before `answer` holds
    std::optional<uint32_t> move_result;     // what pss2_move2location returns beside its status
    std::vector<std::string> calls;          // of the store, in order: name, then its plain arguments

    bool history = true;
    bool debug = false;
    std::vector<std::string> traces;   // texts that the history received
    std::vector<std::string> events;   // the same, byte for byte
    std::vector<std::string> printed;  // what buginf was given, formatted

    std::vector<Sent> requests;
    Reply reply;
    std::map<size_t, Reply> replies;  // those to requests of these numbers, counted from 0
    std::string last_reply;           // bytes of the block handed out

    std::vector<std::string> roles;    // names that exist
    std::vector<std::string> locales;  // the same
    int32_t uri_result = 0;            // of splitting one; other than 0, it splits nothing

    std::optional<uint16_t> card_type;
    std::vector<uint16_t> telnet_card_types;
    int card_reads = 0;
    int32_t vdc = 1;
    uint32_t random = 0x1f;  // every number drawn
    int randoms = 0;         // how many were

    std::vector<Announced> announced;
    int32_t mts_result = 0;  // of each sending
    bool mts_sizes = true;   // false: the transport tells none
    uint32_t mts_errno = 0;  // and what is said of it
    bool tlv_memory = true;  // false: there is none for TLV messages
    std::vector<std::string> tlv_errors;

    std::optional<platform_shadow_entry> shadow;  // what every look-up of a shadow entry finds
    std::vector<std::pair<uint32_t, std::string>> shadow_look_ups;
};

World& world();

// The store's handle; every test may use it.
constexpr uint32_t kHandle = 7;

// A big-endian word, as keys and values hold it.
std::string be32(uint32_t word);

// A number key and a name key.
std::string number_key(uint32_t table, uint32_t number);
std::string name_key(uint32_t table, const std::string& name);
