// Planted: a folder missing from the layer table.
#pragma once
