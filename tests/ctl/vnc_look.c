/* SPDX-License-Identifier: MIT */
/* vncviewer ADDRESS - stands in for a viewer where the documents call one: connects, with the password in the file
 * "vnc-password" when one is asked for, and ends with 0 once a whole picture has come that is not all black. */
#include <rfb/rfbclient.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static char *read_password(rfbClient *client)
{
    char line[16] = "";
    (void)client;
    FILE *file = fopen("vnc-password", "r");
    if (file == NULL || fgets(line, sizeof line, file) == NULL)
        perror("vnc-password");
    if (file != NULL)
        fclose(file);
    line[strcspn(line, "\n")] = '\0';
    return strdup(line);
}

static int is_black(const rfbClient *client)
{
    const uint8_t *bytes = client->frameBuffer;
    for (long i = 0; i < 4l * client->width * client->height; i++)
        if (bytes[i] != 0)
            return 0;
    return 1;
}

int main(int argc, char **argv)
{
    rfbClient *client = rfbGetClient(8, 3, 4);
    char *colon = argc == 2 ? strchr(argv[1], ':') : NULL;
    if (colon == NULL)
        return 2;
    free(client->serverHost);
    client->serverHost = strndup(argv[1], (size_t)(colon - argv[1]));
    client->serverPort = atoi(colon + 1);
    client->GetPassword = read_password;
    if (!rfbInitClient(client, NULL, NULL))
        return 1;
    int good = 1;
    while (good && is_black(client))
        good = WaitForMessage(client, 60000000) > 0 && HandleRFBServerMessage(client);
    printf("a picture of %d x %d pixels\n", client->width, client->height);
    free(client->frameBuffer);
    rfbClientCleanup(client);
    return good ? 0 : 1;
}
