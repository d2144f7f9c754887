/*
 * zok.h - the host interface of the ZOK interpreter, as a native module sees it.
 *
 * A module is a shared library that exports `ZOK_Load` (called once after the
 * library is loaded; returns 1 on success, 0 on failure) and optionally
 * `ZOK_ResetSession` (called when the host resets its session, before the
 * heap is freed).  Everything else a module does goes through the operations
 * declared here, all with C linkage.
 *
 * Conventions that hold for every operation:
 *
 *  - An `action` argument chooses what a failure does.  ZOK_ACTION_RETURN
 *    is quiet: the operation returns its null/zero result and records no
 *    message, so the caller learns of the failure from that result alone.
 *    ZOK_ACTION_WARN records the message as a warning and returns the same
 *    result.  ZOK_ACTION_ERROR raises it: the running routine is ended and
 *    control goes back to the host program.  host_message and
 *    host_message_from_block record their message under every action (that
 *    is what they are for) and return unless the action is ZOK_ACTION_ERROR.  Inside the reference host an error travels as a C++
 *    exception that unwinds through module frames, so module code must not
 *    hold a resource by a raw pointer across any call that can raise.
 *  - Arguments documented as "reserved" must be passed as 0 (or the value
 *    given).  The reference host refuses other values.
 *  - Variables returned by operations that make temporaries carry
 *    ZOK_VF_TEMPORARY.  A module releases every temporary it made and did not
 *    hand back (`host_release_temp`); whatever a call leaves behind is
 *    released by the host when the outermost call returns.
 *  - Heap identifiers are unsigned 32-bit, handed out in increasing order and
 *    never reused, so a stale identifier never names a newer variable.  0 is
 *    "no heap variable".
 *  - Record pointers (`zok_heap_record *`) stay valid until their heap
 *    variable is freed.  Instance data of a structure stays where it is for
 *    the life of the variable that holds it.
 */
#ifndef ZOK_ZOK_H
#define ZOK_ZOK_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#define ZOK_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define ZOK_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* ------------------------------------------------------------------------ */
/* Type codes (one byte in every variable).                                  */

enum {
    ZOK_T_UNDEFINED = 0, /* no value; in keyword tables: any type */
    ZOK_T_BYTE = 1,      /* unsigned 8-bit */
    ZOK_T_SHORT = 2,     /* signed 16-bit */
    ZOK_T_LONG = 3,      /* signed 32-bit */
    ZOK_T_FLOAT = 4,     /* 32-bit floating point */
    ZOK_T_DOUBLE = 5,    /* 64-bit floating point */
    ZOK_T_STRING = 7,    /* value.str is a string descriptor */
    ZOK_T_STRUCT = 8,    /* value.st: instance of a named structure */
    ZOK_T_POINTER = 10,  /* value.heap_id names a heap variable */
    ZOK_T_OBJECT = 11,   /* value.heap_id names an object heap variable */
    ZOK_T_USHORT = 12,   /* unsigned 16-bit */
    ZOK_T_ULONG = 13,    /* unsigned 32-bit */
    ZOK_T_LONG64 = 14,   /* signed 64-bit */
    ZOK_T_ULONG64 = 15   /* unsigned 64-bit */
};

/* Variable flags (the byte after the type code). */
enum {
    ZOK_VF_CONST = 0x01,
    ZOK_VF_TEMPORARY = 0x02,
    ZOK_VF_ARRAY = 0x04, /* value.array holds the elements */
    ZOK_VF_FILE = 0x08,
    ZOK_VF_STRUCT = 0x20, /* value.st or value.array holds structure instances */
    /* A value that is none of these is a simple scalar. */
    ZOK_VF_NOT_SIMPLE = ZOK_VF_ARRAY | ZOK_VF_FILE | ZOK_VF_STRUCT
};

/* Heap variable kinds, and the heap flag a module sets on state it holds. */
enum {
    ZOK_HEAP_POINTER = 10, /* holds any variable */
    ZOK_HEAP_OBJECT = 11,  /* holds an instance of a named structure (a class) */
    /*
     * Held from outside the program's variables (for example by module
     * memory).  The collection of unreachable heap variables keeps such a
     * variable and everything it reaches.
     */
    ZOK_HEAP_HELD = 0x40
};

/* Modes of host_heap_var_new. */
enum {
    /* The new heap variable gets a copy of the value; the source keeps its own. */
    ZOK_HEAP_NEW_COPY = 2,
    /*
     * The new heap variable takes the value over; the source is left
     * undefined (type 0) and loses its array and structure flags, but keeps
     * its temporary flag, so a temporary source is still the caller's to
     * release.
     */
    ZOK_HEAP_NEW_MOVE = 3
};

/* Failure actions. */
enum {
    ZOK_ACTION_RETURN = 0, /* quiet: return null / 0, record nothing */
    ZOK_ACTION_WARN = 1,   /* record the message as a warning, return null / 0 */
    ZOK_ACTION_ERROR = 2   /* raise: end the running routine */
};

/* Host message codes that modules raise with host_message. */
enum {
    /* (const char *format, ...): a printf-style text and its values */
    ZOK_MSG_TEXT = -3,
    /* (const char *routine): an argument of the wrong type */
    ZOK_MSG_ARG_TYPE = -209,
    /* (const char *role, const char *class_name): object of the wrong class */
    ZOK_MSG_WRONG_CLASS = -572,
    /* (const char *routine): the argument is not an object reference */
    ZOK_MSG_NOT_OBJECT = -777
};

/*
 * The host's own codes.  Operations raise them by themselves; they are
 * listed so that programs and tests can tell errors apart.
 */
enum {
    ZOK_ERR_NOT_STRING = -100,      /* a string was required */
    ZOK_ERR_NOT_POINTER = -101,     /* a heap pointer was required */
    ZOK_ERR_NOT_OBJECT = -102,      /* an object reference was required */
    ZOK_ERR_NOT_SIMPLE = -103,      /* a simple scalar was required */
    ZOK_ERR_INVALID_OBJECT = -110,  /* no live object has that identifier */
    ZOK_ERR_INVALID_POINTER = -111, /* no live heap variable has that identifier */
    ZOK_ERR_ARG_COUNT = -120,       /* argument count outside min..max */
    ZOK_ERR_NO_KEYWORDS = -121,     /* keywords given to a routine that takes none */
    ZOK_ERR_UNKNOWN_KEYWORD = -122,
    ZOK_ERR_AMBIGUOUS_KEYWORD = -123,
    ZOK_ERR_UNKNOWN_ROUTINE = -130,
    ZOK_ERR_UNKNOWN_METHOD = -131,
    ZOK_ERR_UNKNOWN_CLASS = -132,
    ZOK_ERR_CONVERSION = -140, /* a value cannot be converted */
    ZOK_ERR_NO_MEMORY = -150,
    ZOK_ERR_BAD_FREE = -151,      /* unknown or already freed block, text or temporary */
    ZOK_ERR_STRUCT = -160,        /* bad structure definition or tag */
    ZOK_ERR_ROUTINE_TABLE = -170, /* a routine table was refused */
    ZOK_ERR_BAD_ARGUMENT = -180,  /* a reserved argument or a null where none is allowed */
    ZOK_ERR_SAVE_FILE = -190      /* a save file that cannot be written, read or restored */
};

/* ------------------------------------------------------------------------ */
/* Values.                                                                   */

/*
 * A string: length in bytes, a kind word (0 for plain text), and the text.
 * A descriptor with length 0 is the empty text and its pointer may be null.
 * Texts that the host stores are followed by a NUL byte that the length does
 * not count.  A descriptor owns its text only after host_string_store or
 * host_string_duplicate; host_string_release gives it back.
 */
typedef struct zok_string {
    uint32_t length;
    uint16_t kind;
    uint16_t reserved;
    char* text;
} zok_string;
ZOK_STATIC_ASSERT(sizeof(zok_string) == 16, "string descriptor is 16 bytes");
ZOK_STATIC_ASSERT(offsetof(zok_string, kind) == 4, "kind word follows the length");
ZOK_STATIC_ASSERT(offsetof(zok_string, text) == 8, "text pointer at 8");

typedef struct zok_struct_def zok_struct_def;
typedef struct zok_array zok_array;

/* An instance of a named structure, or an array of them. */
typedef struct zok_struct_value {
    void* data; /* instance data (scalar) or null when value.array is used */
    zok_struct_def* def;
} zok_struct_value;

typedef union zok_value {
    uint8_t byte_val;
    int16_t short_val;
    uint16_t ushort_val;
    int32_t long_val;
    uint32_t ulong_val;
    uint32_t heap_id; /* ZOK_T_POINTER, ZOK_T_OBJECT */
    int64_t long64_val;
    uint64_t ulong64_val;
    float float_val;
    double double_val;
    zok_string str;
    zok_struct_value st;
    zok_array* array; /* with ZOK_VF_ARRAY */
    unsigned char raw[16];
} zok_value;
ZOK_STATIC_ASSERT(sizeof(zok_value) == 16, "a value is 16 bytes");

/* A host variable. */
typedef struct zok_var {
    uint8_t type;  /* ZOK_T_* */
    uint8_t flags; /* ZOK_VF_* */
    uint16_t reserved0;
    uint32_t reserved1;
    zok_value value;
} zok_var;
ZOK_STATIC_ASSERT(sizeof(zok_var) == 24, "a variable is 24 bytes");
ZOK_STATIC_ASSERT(offsetof(zok_var, flags) == 1, "flags byte follows the type");
ZOK_STATIC_ASSERT(offsetof(zok_var, value) == 8, "value at 8");

/*
 * The element block of an array variable.  Elements are laid out with the
 * natural size of their type: 1, 2, 4 or 8 bytes for numbers, 4 for heap
 * and object identifiers, 16 for string descriptors, the instance size for
 * structures (def names the structure).
 */
struct zok_array {
    uint32_t count;
    uint8_t elem_type;
    uint8_t reserved0;
    uint16_t reserved1;
    void* data;
    zok_struct_def* def;
};

/* One heap variable: its identifier, its heap flags and the variable it holds. */
typedef struct zok_heap_record {
    uint32_t id;
    uint32_t flags; /* ZOK_HEAP_HELD and host-private bits */
    zok_var var;
} zok_heap_record;
ZOK_STATIC_ASSERT(sizeof(zok_heap_record) == 32, "heap record is 32 bytes");
ZOK_STATIC_ASSERT(offsetof(zok_heap_record, flags) == 4, "flags at 4");
ZOK_STATIC_ASSERT(offsetof(zok_heap_record, var) == 8, "variable at 8");

/* ------------------------------------------------------------------------ */
/* Named structures.                                                         */

enum {
    ZOK_TAG_INHERIT = 0x1 /* the entry inherits the structure it names */
};

/*
 * One tag of a structure's tag table.  The table ends with an entry whose
 * name is null.  An inheritance entry (type 0, flags ZOK_TAG_INHERIT) stands
 * first and names the parent structure, whose tags then come first in the
 * instance.  Every tag is a scalar: dimensions is null.
 */
typedef struct zok_tag_entry {
    const char* name;
    const void* dimensions;
    int64_t type;
    uint8_t flags;
    uint8_t pad[7];
} zok_tag_entry;
ZOK_STATIC_ASSERT(sizeof(zok_tag_entry) == 32, "tag entry is 32 bytes");
ZOK_STATIC_ASSERT(offsetof(zok_tag_entry, type) == 16, "type at 16");
ZOK_STATIC_ASSERT(offsetof(zok_tag_entry, flags) == 24, "flags at 24");

/*
 * The definition record of a named structure, owned by the host.  A module
 * keeps the pointer it got from host_make_struct and may read `name` and
 * `prepared`; it stores the result of host_struct_prepare into `prepared`.
 */
struct zok_struct_def {
    const char* name; /* the structure's name; what host_struct_prepare takes */
    size_t size;      /* bytes of one instance, inherited tags included */
    size_t align;     /* alignment of an instance */
    const zok_struct_def* parent;
    const void* host;     /* host-private */
    const void* prepared; /* the string-tag list from host_struct_prepare, or null */
};
ZOK_STATIC_ASSERT(offsetof(zok_struct_def, prepared) == 5 * sizeof(void*),
                  "prepared form is the sixth field");

/* ------------------------------------------------------------------------ */
/* Routines, keywords, messages.                                             */

/* The keywords of a call: opaque, passed on to host_keywords_process. */
typedef struct zok_keywords zok_keywords;

typedef zok_var* (*zok_function)(int32_t argc, zok_var** argv, zok_keywords* kw);
typedef void (*zok_procedure)(int32_t argc, zok_var** argv, zok_keywords* kw);

enum {
    ZOK_RT_KEYWORDS = 0x2 /* the routine accepts keywords */
};

/*
 * One entry of a routine table.  A method's name is CLASS::METHOD, in upper
 * case; its argument 0 is self, an object reference, and counts towards the
 * minimum and maximum.  `entry` is a function or a procedure according to the
 * flag passed to host_add_routines.
 */
typedef struct zok_routine_entry {
    union {
        zok_function function;
        zok_procedure procedure;
    } entry;
    const char* name;
    uint16_t min_args;
    uint16_t max_args;
    int32_t flags;     /* ZOK_RT_KEYWORDS or 0 */
    const void* extra; /* null */
} zok_routine_entry;
ZOK_STATIC_ASSERT(sizeof(zok_routine_entry) == 32, "routine entry is 32 bytes");
ZOK_STATIC_ASSERT(offsetof(zok_routine_entry, min_args) == 16, "argument counts at 16");
ZOK_STATIC_ASSERT(offsetof(zok_routine_entry, flags) == 20, "flags at 20");

/* Keyword flags. */
enum {
    /* The keyword's caller variable itself is passed (as zok_var *), not a converted value. */
    ZOK_KW_BY_REFERENCE = 0x1000,
    /* An absent by-reference keyword leaves a null pointer in its value slot. */
    ZOK_KW_NULL_IF_ABSENT = 0x2000,
    /* An absent keyword's value is zeroed. */
    ZOK_KW_ZERO_IF_ABSENT = 0x4000
};

/*
 * One entry of a keyword table.  A table opens with an entry whose keyword
 * is "" and whose other fields are 0, lists its keywords in ascending order,
 * and ends with an entry whose keyword is null.  `given` and `value` are
 * byte offsets into the results record.  The results record starts with a
 * 64-bit word that processing sets nonzero when the record holds texts that
 * host_keywords_free must give back; each given flag is an int32_t (1 given,
 * 0 absent); each value has the converted type's natural size (uint32_t
 * heap identifier, int32_t integer, zok_string text, zok_var * for type 0).
 * A keyword in a call may be any unique prefix of a table keyword; an exact
 * match wins over prefixes.
 */
typedef struct zok_keyword_entry {
    const char* keyword;
    uint8_t type; /* ZOK_T_* to convert to; 0 = any type (by reference) */
    uint8_t pad0;
    uint16_t mask;  /* 1 */
    uint16_t flags; /* ZOK_KW_* */
    uint16_t pad1;
    int64_t given;
    int64_t value;
} zok_keyword_entry;
ZOK_STATIC_ASSERT(sizeof(zok_keyword_entry) == 32, "keyword entry is 32 bytes");
ZOK_STATIC_ASSERT(offsetof(zok_keyword_entry, type) == 8, "type at 8");
ZOK_STATIC_ASSERT(offsetof(zok_keyword_entry, mask) == 10, "mask at 10");
ZOK_STATIC_ASSERT(offsetof(zok_keyword_entry, flags) == 12, "flags at 12");
ZOK_STATIC_ASSERT(offsetof(zok_keyword_entry, given) == 16, "given at 16");

/* A (name, text) pair of a message block. */
typedef struct zok_message_def {
    const char* name;
    const char* text;
} zok_message_def;

typedef struct zok_message_block zok_message_block; /* opaque */
typedef struct zok_name zok_name;                   /* opaque, stable for the process */

/*
 * The call block of host_call_routine.  `args` lists `argc` variables and
 * then a null entry; a null among the `argc` entries passes an undefined
 * argument.  `pad` is zero.
 */
typedef struct zok_call_block {
    uint8_t is_function;
    uint8_t pad[3];
    int32_t argc;
    const zok_name* routine;
    const void* object; /* null */
    zok_var** args;
    zok_keywords* keywords; /* null */
} zok_call_block;
ZOK_STATIC_ASSERT(offsetof(zok_call_block, argc) == 4, "argument count at 4");
ZOK_STATIC_ASSERT(offsetof(zok_call_block, routine) == 8, "routine at 8");
ZOK_STATIC_ASSERT(sizeof(zok_call_block) == 40, "call block is 40 bytes");

/* ------------------------------------------------------------------------ */
/* Operations.                                                               */

/* Registration. */

/* Defines a message block of `count` (name, text) pairs.  Null when refused. */
zok_message_block* host_define_message_block(const char* block_name, int32_t count,
                                             const zok_message_def* messages);
/*
 * Registers `count` routines: functions when is_function is 1, procedures
 * when 0.  Each entry is checked (upper-case name, min <= max, no clash with a
 * different routine of the same name); a table with a bad entry is refused as
 * a whole.  Nonzero on success.
 */
int32_t host_add_routines(const zok_routine_entry* table, int32_t is_function, int32_t count);
/*
 * Defines a named structure (reserved must be 16, flags 2).  Defining a name
 * again with the same layout returns the existing definition; with another
 * layout it is an error (null, message recorded).
 */
zok_struct_def* host_make_struct(const char* name, int32_t reserved, const zok_tag_entry* tags,
                                 int32_t flags);
/*
 * Computes the list of string tags that copying or freeing an instance of
 * the structure named `name` must visit (reserved arguments 0, 0, 1).
 * The module stores the result in the definition's `prepared` field.
 */
const void* host_struct_prepare(const char* name, int32_t reserved0, int32_t reserved1,
                                int32_t reserved2, int32_t action);
/* Address of a tag's data (inherited tags included) in a structure variable. */
void* host_struct_tag_data(const zok_var* instance, const char* tag, int32_t reserved0,
                           int32_t reserved1, int32_t reserved2);

/* Messages.  Both return only when the action allows it. */
void host_message(int32_t code, int32_t action, ...);
void host_message_from_block(const zok_message_block* block, int32_t code, int32_t action);

/* Heap. */

/*
 * The record of a live heap variable (an object or a pointer heap variable),
 * else null or, with action 2, the invalid-object error.
 */
zok_heap_record* host_object_heap_var(uint32_t id, int32_t action);
/* The record of a live heap variable of either kind, or null. */
zok_heap_record* host_heap_var(uint32_t id);
/*
 * Makes a heap variable of `kind` from `value` (see ZOK_HEAP_NEW_*).  Kind
 * ZOK_HEAP_OBJECT needs a scalar structure value.  Null on failure (action 0).
 */
zok_heap_record* host_heap_var_new(int32_t kind, zok_var* value, int32_t mode, int32_t action);
/* Frees a heap variable and its value; calls no method.  Unknown ids are an error. */
void host_heap_free(uint32_t id, int32_t reserved0, int32_t reserved1);

/* Temporaries and variables. */

zok_var* host_temp_var(void);           /* undefined, flagged temporary */
zok_var* host_temp_long(int32_t value); /* type 3 */
/* A temporary scalar of the structure, its instance zeroed; null when memory runs out. */
zok_var* host_temp_struct(zok_struct_def* def);
void host_release_temp(zok_var* temp);
/* A temporary holding `var` converted to `type` (numbers and numeric text). */
zok_var* host_convert_var(const zok_var* var, int32_t type);
/* Raise the host's type error about `var` (called when it is of the wrong type). */
void host_require_string(const zok_var* var, int32_t action);
void host_require_pointer(const zok_var* var, int32_t action);
void host_require_object(const zok_var* var, int32_t action);
void host_require_simple(const zok_var* var, int32_t action);
/* dest := a copy of src (dest's old value is freed; its flags are kept). */
void host_var_copy(const zok_var* src, zok_var* dest, int32_t reserved);
/* Stores a copy of src into a variable in place (same as host_var_copy). */
void host_var_store(zok_var* dest, const zok_var* src);
/* temp := a copy of src; the temporary keeps its temporary flag. */
void host_var_copy_out(const zok_var* src, zok_var* temp);
/* The element count and element data of an array (or of a scalar: 1 and its value). */
void host_var_elements(const zok_var* var, int32_t* count, void** data, int32_t reserved);
/* The string descriptor of a string variable (reserved 0, 1). */
zok_string* host_var_string(zok_var* var, int32_t reserved0, int32_t reserved1);
/*
 * A new temporary array of `count` elements of `type` (7 strings, 11 objects;
 * elements start empty / 0); its variable goes to *out.  Returns the element data.
 */
void* host_make_temp_vector(int32_t type, int32_t count, int32_t reserved, zok_var** out);
/* Frees the value a variable holds and leaves it undefined; flags are kept. */
void host_var_free_value(zok_var* var);

/* Strings. */

void host_string_store(zok_string* dest, const char* text);
void host_string_duplicate(zok_string* descs, int32_t count);
void host_string_release(zok_string* descs, int32_t count);
/* Byte-wise comparison, the shorter text first when one is a prefix of the other. */
int32_t host_string_compare(const zok_string* a, const zok_string* b);

/* Keywords. */

/*
 * Processes a call's keywords against `table` (reserved must be 1): fills
 * `results` as the table says, and stores the positional arguments into
 * `plain` (room for argc entries).  Returns the count of positional
 * arguments.  Unknown, ambiguous and unconvertible keywords are errors.
 */
int32_t host_keywords_process(int32_t argc, zok_var** argv, zok_keywords* kw,
                              const zok_keyword_entry* table, zok_var** plain, int32_t reserved,
                              void* results);
/* Gives back the texts held by the last keyword processing. */
void host_keywords_free(void);

/* Memory. */

void* host_mem_alloc(size_t size, const char* label);
void host_mem_free(void* block);
/* Frees a block from host_mem_alloc; `label` names the freeing routine. */
void host_mem_free_tagged(void* block, const char* label);
/* Fixed-size blocks for tree nodes.  Null when memory runs out. */
void* host_mem_alloc_plain(size_t size);
void host_mem_free_labelled(void* block, const char* label);

/* Names, calls, objects. */

/*
 * A stable handle for a routine, method or class name (reserved 0; kind 1 for
 * routines and methods, 0 for any name; reserved 0).  Null, or with action 2
 * the host's error, when nothing is registered under the name.
 */
const zok_name* host_lookup_name(const char* name, int32_t reserved0, int32_t kind, int32_t action,
                                 int32_t reserved1);
/*
 * Calls the method `name` (a bare method name such as "RESTORE") on the
 * object, resolved by the object's actual class (mode 2).  `args` holds the
 * argc arguments after self.  Returns the method's result (null for a
 * procedure).
 */
zok_var* host_call_method(int32_t mode, const zok_name* name, const zok_heap_record* object,
                          int32_t reserved0, int32_t argc, zok_var** args, int32_t reserved1,
                          int32_t reserved2, int32_t reserved3);
/*
 * host_call_method (mode 2) on the object whose heap identifier is `id`,
 * without fetching its record first: the same checks, errors and result as
 * host_object_heap_var(id, 2) followed by host_call_method.
 */
zok_var* host_call_method_id(const zok_name* name, uint32_t id, int32_t argc, zok_var** args);
/* Calls a routine by handle; a function's result, or null for a procedure. */
zok_var* host_call_routine(const zok_call_block* call);
/* Nonzero when the structure is the class `class_name` or inherits from it. */
int32_t host_object_isa(const zok_struct_def* def, const char* class_name, int32_t reserved0,
                        int32_t reserved1, int32_t action);
/* A temporary holding a class handle, or null for an unknown class. */
zok_var* host_find_class(const char* class_name);
/*
 * Creates an object: args[0] is a class handle; INIT runs with args[1..].
 * Returns a temporary object reference (0 when INIT returned 0).
 */
zok_var* host_object_new(int32_t argc, zok_var** args, zok_keywords* kw);
/* Destroys the object args[0] refers to: CLEANUP, then free.  Null or dead: nothing. */
void host_object_destroy(int32_t argc, zok_var** args, zok_keywords* kw);

#ifdef __cplusplus
}
#endif

#endif /* ZOK_ZOK_H */
