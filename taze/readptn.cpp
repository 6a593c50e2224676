// readptn
