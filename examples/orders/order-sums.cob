      * Sums of the changes in a text capture file of the order-entry
      * database: for each operation on four of the datasets the
      * records, their quantities and their amounts.  Updates count
      * with what they change: the new row less the old one.
      *
      * The records come from the log itself:
      *   fwlog layout --copybook -ascii > capture.cpy
      *   cobc -x order-sums.cob
      *   Kestro -synconly -ascii changes.txt
      *   CAPTURE=changes.txt ./order-sums
       IDENTIFICATION DIVISION.
       PROGRAM-ID. ORDER-SUMS.
       ENVIRONMENT DIVISION.
       INPUT-OUTPUT SECTION.
       FILE-CONTROL.
           SELECT CAPTURE-FILE ASSIGN TO "CAPTURE"
               ORGANIZATION IS LINE SEQUENTIAL.
       DATA DIVISION.
       FILE SECTION.
       FD  CAPTURE-FILE.
       COPY "capture.cpy".
       WORKING-STORAGE SECTION.
       01  END-OF-FILE            PIC X VALUE "N".
       01  OLD-QTY                PIC S9(9).
       01  OLD-AMOUNT             PIC S9(9)V9(2).
       01  THIS-QTY               PIC S9(9).
       01  THIS-AMOUNT            PIC S9(9)V9(2).
       01  SUM-TABLE.
           05  SUM-LINE           OCCURS 20 TIMES.
               10  SUM-DATASET    PIC X(16).
               10  SUM-OPERATION  PIC X(2).
               10  SUM-RECORDS    PIC 9(9).
               10  SUM-QTY        PIC S9(15).
               10  SUM-AMOUNT     PIC S9(15)V9(2).
       01  SUM-LINES              PIC 9(4) VALUE 0.
       01  I                      PIC 9(4).
       01  SHOWN-LINE.
           05  SHOWN-DATASET      PIC X(16).
           05  SHOWN-OPERATION    PIC X(4).
           05  SHOWN-RECORDS      PIC Z(8)9.
           05  SHOWN-QTY          PIC -(12)9.
           05  SHOWN-AMOUNT       PIC -(12)9.99.
       PROCEDURE DIVISION.
       MAIN-PART.
           OPEN INPUT CAPTURE-FILE.
           PERFORM UNTIL END-OF-FILE = "Y"
               READ CAPTURE-FILE
                   AT END MOVE "Y" TO END-OF-FILE
                   NOT AT END PERFORM TAKE-RECORD
               END-READ
           END-PERFORM.
           CLOSE CAPTURE-FILE.
           PERFORM VARYING I FROM 1 BY 1 UNTIL I > SUM-LINES
               MOVE SUM-DATASET (I) TO SHOWN-DATASET
               MOVE SUM-OPERATION (I) TO SHOWN-OPERATION
               MOVE SUM-RECORDS (I) TO SHOWN-RECORDS
               MOVE SUM-QTY (I) TO SHOWN-QTY
               MOVE SUM-AMOUNT (I) TO SHOWN-AMOUNT
               DISPLAY SHOWN-LINE
           END-PERFORM.
           STOP RUN.
      * The header stands at the same place in all records.
       TAKE-RECORD.
           MOVE 0 TO OLD-QTY OLD-AMOUNT.
           EVALUATE H-DATASET OF DEPOT-STOCK-MOVES-REC
               WHEN "STOCK-MOVES"
                   MOVE R-QTY OF DEPOT-STOCK-MOVES-REC TO THIS-QTY
                   MOVE R-AMOUNT OF DEPOT-STOCK-MOVES-REC
                     TO THIS-AMOUNT
                   PERFORM ADD-UP
               WHEN "ORDER-LINES"
                   MOVE R-QTY OF SALES-ORDER-LINES-REC TO THIS-QTY
                   MOVE R-AMOUNT OF SALES-ORDER-LINES-REC
                     TO THIS-AMOUNT
                   IF H-UPDATE OF SALES-ORDER-LINES-REC
                       MOVE THIS-QTY TO OLD-QTY
                       MOVE THIS-AMOUNT TO OLD-AMOUNT
                       MOVE N-QTY OF SALES-ORDER-LINES-REC TO THIS-QTY
                       MOVE N-AMOUNT OF SALES-ORDER-LINES-REC
                         TO THIS-AMOUNT
                   END-IF
                   PERFORM ADD-UP
               WHEN "ORDERS"
                   MOVE R-N-LINES OF SALES-ORDERS-REC TO THIS-QTY
                   MOVE R-NET OF SALES-ORDERS-REC TO THIS-AMOUNT
                   IF H-UPDATE OF SALES-ORDERS-REC
                       MOVE THIS-QTY TO OLD-QTY
                       MOVE THIS-AMOUNT TO OLD-AMOUNT
                       MOVE N-N-LINES OF SALES-ORDERS-REC TO THIS-QTY
                       MOVE N-NET OF SALES-ORDERS-REC TO THIS-AMOUNT
                   END-IF
                   PERFORM ADD-UP
               WHEN "PAYMENTS"
                   MOVE 0 TO THIS-QTY
                   MOVE R-AMOUNT OF SALES-PAYMENTS-REC TO THIS-AMOUNT
                   IF H-UPDATE OF SALES-PAYMENTS-REC
                       MOVE THIS-AMOUNT TO OLD-AMOUNT
                       MOVE N-AMOUNT OF SALES-PAYMENTS-REC
                         TO THIS-AMOUNT
                   END-IF
                   PERFORM ADD-UP
           END-EVALUATE.
       ADD-UP.
           PERFORM VARYING I FROM 1 BY 1 UNTIL I > SUM-LINES
               OR (SUM-DATASET (I) = H-DATASET OF SALES-ORDERS-REC
               AND SUM-OPERATION (I) = H-OPERATION OF SALES-ORDERS-REC)
               CONTINUE
           END-PERFORM.
           IF I > SUM-LINES
               MOVE I TO SUM-LINES
               MOVE H-DATASET OF SALES-ORDERS-REC TO SUM-DATASET (I)
               MOVE H-OPERATION OF SALES-ORDERS-REC
                 TO SUM-OPERATION (I)
               MOVE 0 TO SUM-RECORDS (I) SUM-QTY (I) SUM-AMOUNT (I)
           END-IF.
           ADD 1 TO SUM-RECORDS (I).
           COMPUTE SUM-QTY (I) = SUM-QTY (I) + THIS-QTY - OLD-QTY.
           COMPUTE SUM-AMOUNT (I) =
               SUM-AMOUNT (I) + THIS-AMOUNT - OLD-AMOUNT.
