import com.vaultory.service.QRService;
import org.apache.commons.daemon.Daemon;
import org.apache.commons.daemon.DaemonContext;

/** The service for jsvc; asks to be stopped once main has returned. */
public final class JsvcService implements Daemon {
    private DaemonContext context;

    @Override public void init(DaemonContext context) { this.context = context; }
    @Override public void start() { new Thread(this::run).start(); }
    @Override public void stop() {}
    @Override public void destroy() {}

    private void run() {
        try {
            QRService.main(context.getArguments());
        } catch (Exception failure) {
            context.getController().fail(failure);
        }
        context.getController().shutdown();
    }
}
