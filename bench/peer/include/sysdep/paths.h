/* SPDX-License-Identifier: Apache-2.0 */
/* BIRD's build writes its install paths here; the side-by-side program
 * opens no file of BIRD's. */
#define PATH_CONFIG_FILE "/dev/null"
#define PATH_CONTROL_SOCKET "/dev/null"
#define PATH_IPROUTE_DIR "/dev/null"
