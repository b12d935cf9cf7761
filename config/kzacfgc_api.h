/*
 * The central configuration client (libkzacfgc.so): its two exports and its operation table.
 *
 * The library is opened at run time. The table's positions are fixed by the library. The header
 * depends on nothing, so that the library and its caller include the same text.
 */
#ifndef KZEMDLMGR_CONFIG_KZACFGC_API_H
#define KZEMDLMGR_CONFIG_KZACFGC_API_H

typedef struct cfgc_client_st cfgc_client_st;
typedef struct cfgc_value_st cfgc_value_st;

/* A table entry of which only the presence counts here. */
typedef void (*cfgc_entry)(void);

enum {
    CFGC_VALUE_STRING = 3, /* the type code of a text */
    CFGC_TABLE_SIZE = 52,  /* entries in the table */
};

/* The operation table. The library owns it; it is released with DllDestroyObject. */
typedef struct cfgc_operations {
    /* 0: the text of a result code, owned by the library. */
    const char *(*ErrorString)(int result);
    /* 1: a client for the store in a directory, or null. */
    cfgc_client_st *(*NewClient)(const char *client_name, const char *directory);
    /* 2 */
    void (*DeleteClient)(cfgc_client_st *client);
    cfgc_entry entry_3_4[2];
    /* 5: a negative number on failure; otherwise *value_out is filled in and the caller's. */
    int (*GetValue)(cfgc_client_st *client, const char *module, const char *key,
                    cfgc_value_st **value_out);
    cfgc_entry entry_6_25[20];
    /* 26 */
    void (*FreeValue)(cfgc_value_st *value);
    /* 27: the type code of a value. */
    int (*ValueType)(const cfgc_value_st *value);
    cfgc_entry entry_28_41[14];
    /* 42: the text, owned by the value, or null. */
    const char *(*ValueAsString)(const cfgc_value_st *value);
    cfgc_entry entry_43_51[9];
} cfgc_operations;

#ifdef __cplusplus
static_assert(sizeof(cfgc_operations) == CFGC_TABLE_SIZE * sizeof(cfgc_entry),
              "the table has 52 entries and nothing between them");
#endif

/* Exported as "DllNewObject": sets *table_out; 0 or more is success. */
typedef int (*cfgc_new_object_fn)(cfgc_operations **table_out);
/* Exported as "DllDestroyObject": releases the table. */
typedef void (*cfgc_destroy_object_fn)(cfgc_operations *table);

#endif
