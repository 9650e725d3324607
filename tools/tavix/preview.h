// `tavix preview`: a live window on a capture device.
#pragma once

int PreviewCommand(int argc, char** argv);
