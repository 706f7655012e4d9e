/* The reference back end, started in process on a free loopback port for the C test. */
#ifndef OMRAKIT_TESTS_CAPI_SERVER_FIXTURE_H_
#define OMRAKIT_TESTS_CAPI_SERVER_FIXTURE_H_

#ifdef __cplusplus
extern "C" {
#endif

/* Returns the base URL ("http://127.0.0.1:PORT"), or NULL when the server did not start. */
const char* omra_test_server_start(void);
void omra_test_server_stop(void);

#ifdef __cplusplus
}
#endif

#endif
