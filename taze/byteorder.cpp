// byteorder
