/* What the secure-processor TA keeps, one persistent object per item, and the shape each item's
 * value must have. The host TEE's control TA reads the same table to replace an answer, so that the
 * object ids and the rules exist once. */
#ifndef ZEL_SP_ITEMS_H
#define ZEL_SP_ITEMS_H

#include <stdbool.h>
#include <stdint.h>

enum sp_item {
    SP_AK_KEY = 1,         /* the provisioned AK public key, as the 540 characters received */
    SP_RPMB_BOUND = 2,     /* present once the AK key was bound to RPMB */
    SP_FIRMWARE_WORDS = 3, /* the firmware information, 32-bit little-endian words */
    SP_HACK_STATUS = 4,    /* hack status bytes; any non-zero byte reports a hack */
    SP_UPDATE_RESULT = 5,  /* the 8-byte result record a firmware update reports */
    SP_SYSTEM_VERSION = 6, /* version texts a firmware update reports */
    SP_APP_VERSION = 7,
};

#define SP_AK_KEY_TEXT_SIZE 540u

struct sp_item_rule {
    uint32_t item;
    const char* object_id;
    const uint8_t* fallback; /* what a settable item reads as while nothing is stored */
    uint32_t fallback_size;
    bool settable;      /* by the host TEE's control TA */
    uint32_t max_size;  /* a settable value's bound, so that every reply fits a block; the size
                           of what the TA keeps itself */
    uint32_t size_step; /* a settable value's size is a multiple of this */
};

/* Firmware words: system firmware 1.0.2 and application 7.1, then five reserved words. */
static const uint8_t sp_default_firmware_words[40] = {1, 0, 0, 0, 0, 0, 0, 0, 2,
                                                      0, 0, 0, 7, 0, 0, 0, 1};
static const uint8_t sp_default_zeros[8] = {0};
static const uint8_t sp_default_system_version[] = {'1', '.', '0', '.', '2'};
static const uint8_t sp_default_app_version[] = {'7', '.', '1'};

static const struct sp_item_rule sp_item_rules[] = {
    {SP_AK_KEY, "sp.ak_key", 0, 0, false, SP_AK_KEY_TEXT_SIZE, SP_AK_KEY_TEXT_SIZE},
    {SP_RPMB_BOUND, "sp.rpmb_bound", 0, 0, false, 0, 1},
    {SP_FIRMWARE_WORDS, "sp.firmware_words", sp_default_firmware_words, 40, true, 4096, 4},
    {SP_HACK_STATUS, "sp.hack_status", sp_default_zeros, 4, true, 256, 1},
    {SP_UPDATE_RESULT, "sp.update_result", sp_default_zeros, 8, true, 8, 8},
    {SP_SYSTEM_VERSION, "sp.system_version", sp_default_system_version, 5, true, 256, 1},
    {SP_APP_VERSION, "sp.app_version", sp_default_app_version, 3, true, 256, 1},
};

/* The rule of an item; NULL for a number that is none. */
static inline const struct sp_item_rule* sp_item_rule_of(uint32_t item) {
    for (uint32_t i = 0; i < sizeof sp_item_rules / sizeof sp_item_rules[0]; ++i)
        if (sp_item_rules[i].item == item) return &sp_item_rules[i];
    return 0;
}

/* Whether a value has the shape its item allows: the rule a stored value is checked against when
 * it is read back, and a new answer when it is set. What the TA itself keeps has one size. */
static inline bool sp_item_value_fits(const struct sp_item_rule* rule, uint32_t size) {
    if (!rule->settable) return size == rule->max_size;
    return size <= rule->max_size && size % rule->size_step == 0;
}

#endif
